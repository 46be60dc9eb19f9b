// Regex: one compiled PCRE2 pattern matched over StrSegments, with named
// groups, replace-all and modular patterns.
//
// init() compiles with no options (and JIT-compiles when `study` is set);
// after that the object is read-only, so match() and replaceAll() may run in
// several threads at once. Match data is per thread (PcreMatchData); a match
// allocates nothing beyond what the RegexMatch it fills may need the first
// time.
//
// Modular patterns embed other named patterns as [[name]] or [[name:capture]];
// resolveModularPattern() expands them through a RegexNameResolver before
// compiling.
#pragma once

#include <map>
#include <set>

#include "util/RegexMatch.h"
#include "util/RegexNameResolver.h"
#include "util/Str.h"
#include "util/StrSegment.h"

struct pcre2_real_code_8;

class Regex {
 public:
  Regex() = default;
  // Same as init(pattern, study).
  explicit Regex(const Str& pattern, bool study = false);
  ~Regex();
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  // Compiles the pattern (replacing any earlier one). Throws
  // std::runtime_error "Regex: " + the library's message on a bad pattern.
  void init(const Str& pattern, bool study);

  bool isInitialized() const { return _code != nullptr; }
  const Str& getPattern() const { return _pattern; }
  // Capturing groups, group 0 not counted.
  unsigned getCaptureCount() const { return _captureCount; }
  // Name -> group number of every named group.
  const std::map<Str, unsigned>& getNameMap() const { return _names; }

  // Matches `text`. A null text pointer is the empty string. With `advance`,
  // an empty text fails at once and a match moves `text` past its end. With
  // `toEnd`, a match that does not end at the end of `text` is a failure.
  // `result` (may be null) receives the groups.
  // An empty match moves `text` by nothing, so a loop over a pattern that can
  // match the empty string must check that it makes progress.
  // REQUIRES: isInitialized().
  bool match(StrSegment& text, RegexMatch* result = nullptr, bool advance = false, bool toEnd = false) const;
  // Convenience: does the pattern match anywhere in `text`?
  bool matches(const StrSegment& text) const {
    StrSegment t(text);
    return match(t);
  }

  // Writes `text` to `out` with every match replaced by `replacement`. With
  // `expand`, "\N" in the replacement stands for group N and "\\" for one
  // backslash. Returns the number of replacements.
  unsigned replaceAll(const StrSegment& text, const Str& replacement, Str& out, bool expand) const;

  // Does the pattern hold a [[name]] or [[name:capture]] reference?
  static bool isModularPattern(const Str& pattern);
  // Expands every reference, recursively. Throws std::runtime_error on an
  // unknown name or a cycle.
  static Str resolveModularPattern(const Str& pattern, RegexNameResolver& resolver);

 private:
  void release();
  static Str resolveModular(const Str& pattern, RegexNameResolver& resolver, std::set<Str>& inProgress);

  Str _pattern;
  pcre2_real_code_8* _code = nullptr;
  unsigned _captureCount = 0;
  std::map<Str, unsigned> _names;
};
