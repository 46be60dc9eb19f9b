// WildcardMatcher: a compiled pattern in which only "*" is special; "*"
// matches any run of bytes, including none. Matching is case sensitive.
//
// The pattern is copied and split at stars into at most kMaxPieces non-empty
// pieces (a run of stars counts as one star; pieces past the limit are
// dropped, which leaves the end soft). The matcher remembers whether the
// pattern has a hard start (no leading star) and a hard end (no trailing
// star).
//
// Matching a pattern with stars: with a hard start the first piece must begin
// the text; the following pieces are found left to right, each at its
// leftmost place after the previous one; with a hard end the last piece must
// end the text (after everything matched before it). A pattern without stars
// is an exact word and is compared whole.
//
// The object is immutable after init(); isMatch may be called from any
// number of threads at once and allocates nothing (but for the vector form).
#ifndef VELMOR_UTIL_WILDCARDMATCHER_H
#define VELMOR_UTIL_WILDCARDMATCHER_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"

class WildcardMatcher {
 public:
  static constexpr size_t kMaxPieces = 256;

  // getMatcherType() values. Types 0-2 describe pieceless forms that init()
  // never produces; they are kept so that stored values stay meaningful.
  enum MatcherType : uint32_t {
    TYPE_NONE = 0,
    TYPE_HARD_START_ONLY = 1,
    TYPE_HARD_END_ONLY = 2,
    TYPE_WILDCARD = 3,      // at least one piece and at least one star
    TYPE_EXACT_WORD = 4,    // no star at all (the empty pattern included)
    TYPE_MATCH_ALL = 0xFFFFFFFFu,  // nothing but stars
  };

  WildcardMatcher() { init(StrSegment()); }
  explicit WildcardMatcher(const StrSegment& pattern) { init(pattern); }

  void init(const StrSegment& pattern);

  uint32_t getMatcherType() const { return _type; }
  bool getHardStart() const { return _hardStart; }
  bool getHardEnd() const { return _hardEnd; }
  // The whole pattern for an exact word, otherwise the first piece (empty if
  // the pattern is all stars).
  const Str& getWord() const;
  // The literal text before the first star; empty with a leading star.
  Str getPatternPrefix() const;
  const Str& getPattern() const { return _pattern; }
  const std::vector<Str>& getPieces() const { return _pieces; }

  // REQUIRES: text is NUL-terminated (nullptr is taken as "").
  bool isMatch(const char* text) const;
  bool isMatch(const StrSegment& text) const;
  // Also gives [from, to): from the start of the first piece's match to the
  // end of the last piece's match, so what a leading or trailing star took
  // lies outside. An exact word, or a pattern of stars only: the whole text.
  bool isMatch(const StrSegment& text, size_t* from, size_t* to) const;
  // Also fills `stars` with what each star (each run of stars) matched, in
  // order; the segments point into `text`.
  bool isMatch(const StrSegment& text, std::vector<StrSegment>& stars) const;

 private:
  // Core matcher; `stars` and `from`/`to` are optional.
  bool match(const char* text, size_t len, size_t* from, size_t* to,
             std::vector<StrSegment>* stars) const;

  Str _pattern;
  std::vector<Str> _pieces;
  uint32_t _type = TYPE_EXACT_WORD;
  bool _hardStart = true;
  bool _hardEnd = true;
};

#endif
