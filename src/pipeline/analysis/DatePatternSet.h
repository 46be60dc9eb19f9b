// DatePatternSet: the compiled form of one datetime.xml - the time patterns
// and the date patterns, each an ordered list of RegexBindings.
//
// The file's root holds `define` elements (attribute `name`, optional
// `extract` = comma-separated binding names of the capture groups, child
// `text` = the regular expression, which may embed other defines as
// [[name]]) and the two lists `timePatterns` and `datePatterns`, whose `use`
// children name the defines to try, in order. A define used by both lists is
// compiled once.
//
// Sets are cached process-wide by path: get() compiles a file the first time
// it is asked for and hands the same immutable set to every later caller, so
// a thousand streams share one compile. The cache is guarded by a mutex; a
// set itself is read-only once built and may be used from any thread.
#pragma once

#include <memory>
#include <vector>

#include "pipeline/analysis/RegexBinding.h"
#include "util/Str.h"

class DatePatternSet {
 public:
  // The set of the file at `path`, compiled on first use. Throws
  // DateParseException on a missing or malformed file.
  static std::shared_ptr<const DatePatternSet> get(const Str& path);
  // Compiles XML text; `origin` names it in messages. Not cached.
  // Throws DateParseException.
  static std::shared_ptr<const DatePatternSet> fromText(const Str& xmlText, const Str& origin);
  // Forgets every cached set (sets in use stay alive with their users).
  static void clearCache();

  const std::vector<const RegexBinding*>& timePatterns() const { return _time; }
  const std::vector<const RegexBinding*>& datePatterns() const { return _date; }
  const Str& origin() const { return _origin; }

 private:
  DatePatternSet() = default;
  void build(const char* data, size_t size, const Str& origin);

  Str _origin;
  std::vector<std::unique_ptr<RegexBinding>> _owned;
  std::vector<const RegexBinding*> _time;
  std::vector<const RegexBinding*> _date;
};
