// AbstractOperator: `abstract` / `excerpt [maxterms=<n>] [maxlines=<n>]`.
// Shortens the `_raw` of each row to its most telling lines:
//   scoreLines        each line scores the count of its words (cut at the
//                     breaker bytes) that are search keywords (the info's
//                     keywords, compared without case);
//   improveLineScores the first line (which carries the time stamp) gets a
//                     bonus, and lines next to scoring lines get a part of
//                     their neighbour's score, so context stays together;
//   abstract          keeps the `maxlines` best lines (earlier first on a
//                     tie), in their original order, stops adding lines
//                     once `maxterms` words are used (the first line is
//                     cut to fit), and marks every gap with
//                     "... <n> line(s) omitted ...".
// Every row also gets `_fulllinecount` and `_fullcharcount` of the original
// text. Defaults: maxlines 10, maxterms unset. Streamable (row by row).
// One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class AbstractOperator : public SearchProcessor {
 public:
  explicit AbstractOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new AbstractOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The bytes that end a word, besides the blank.
  static const char* const kBreakers;
  // A blank, a NUL or one of kBreakers.
  static bool isBreaker(char c);

  // Lines of `text` without their line breaks (a trailing empty line is
  // dropped).
  static void splitLines(const Str& text, std::vector<Str>& lines);
  // Keyword hits per line; keywords must be lower case.
  static void scoreLines(const std::vector<Str>& lines, const std::vector<Str>& keywords,
                         std::vector<double>& scores);
  static void improveLineScores(std::vector<double>& scores);
  // The shortened text; `maxTerms` 0 means no limit on words.
  static Str abstract(const std::vector<Str>& lines, const std::vector<double>& scores, size_t maxLines,
                      size_t maxTerms);

 private:
  unsigned long _maxLines = 10;
  unsigned long _maxTerms = 0;  // 0: unset
};
