// ResultsFormatter: turns rows into one search text, the way a subsearch's
// rows become the argument of the command around it and the way the
// `format` command builds its `_query`.
//
// The text is
//   <resultStart> <colStart> k1="v1" <colSep> k2="v2" <colEnd> <rowSep> <colStart> ... <colEnd> <resultEnd>
// with the public fields of each row (names starting with "_" are left out)
// in name order. In values a backslash and a double
// quote are escaped with a backslash. Rows without any public field add
// nothing. No rows give an empty text.
//
// A plain value; any thread may use its own instance.
#pragma once

#include "util/Str.h"

class SearchResults;

class ResultsFormatter {
 public:
  // The defaults: "(" "(" "AND" ")" "OR" ")".
  ResultsFormatter();
  ResultsFormatter(const Str& resultStart, const Str& colStart, const Str& colSep, const Str& colEnd,
                   const Str& rowSep, const Str& resultEnd);

  Str format(const SearchResults& rows) const;

 private:
  Str _resultStart, _colStart, _colSep, _colEnd, _rowSep, _resultEnd;
};
