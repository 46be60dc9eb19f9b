// DateTimeRegexList: an ordered list of date or time patterns with the state
// one stream keeps about them: the pattern that matched last (tried first on
// the next line), how many lines in a row it has matched, and the length of
// its last match.
//
// The patterns belong to a shared, immutable DatePatternSet; the state
// belongs to one DateParser and its thread. Subclasses say how the bindings
// of a match become fields of a TimeFormatRawParseResult, and how many
// characters they used (the score by which patterns compete).
#pragma once

#include <cstddef>
#include <vector>

#include "pipeline/analysis/DataBinding.h"
#include "pipeline/analysis/RegexBinding.h"
#include "util/RegexMatch.h"
#include "util/TimeFormatRawParseResult.h"

class DateParser;

class DateTimeRegexList {
 public:
  // One match: the fields it gave and where it stood in the text.
  struct ParseState {
    TimeFormatRawParseResult parse;
    size_t begin = 0;
    size_t end = 0;
  };

  DateTimeRegexList() = default;
  virtual ~DateTimeRegexList();
  DateTimeRegexList(const DateTimeRegexList&) = delete;
  DateTimeRegexList& operator=(const DateTimeRegexList&) = delete;

  // REQUIRES: `patterns` outlives this list (or the next setPatterns call).
  void setPatterns(const std::vector<const RegexBinding*>* patterns);
  size_t size() const { return _patterns ? _patterns->size() : 0; }
  const RegexBinding* pattern(size_t i) const { return (*_patterns)[i]; }

  // Runs pattern `i` over `text` and scores it: on a match fills `state`
  // (its span already set when parse() is called) and returns the score;
  // -1 when the pattern does not match or its fields make no sense.
  int tryPattern(size_t i, const StrSegment& text, ParseState& state);

  // Turns the bindings of a match into fields of state.parse. Returns the
  // score, or -1 when the text is no date or time after all.
  virtual int parse(const BindingValues& map, ParseState& state) const = 0;
  // Whether a candidate may win; the date list asks the parser whether the
  // date with the time already found lies inside the date window.
  virtual bool valid(const ParseState& state, DateParser& parser) const;

  // Forgets the stream state.
  void reset();

  int lastBinding = -1;   // index of the pattern that matched last, -1: none
  int runCount = 0;       // lines in a row that pattern matched
  size_t lastLength = 0;  // length of its last match
  // The last getMatch saw a pattern match the text but refused it (a date
  // outside the window, a day the month does not have).
  bool refused = false;

 protected:
  // Reads a run of decimal digits (at most 18); false on anything else.
  static bool readNumber(const StrSegment& s, int64_t& out);

 private:
  const std::vector<const RegexBinding*>* _patterns = nullptr;
  BindingValues _values;
  RegexMatch _scratch;
};
