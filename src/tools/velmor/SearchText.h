// SearchText: what the command line's search text becomes before it runs,
// and what is read back out of it.
//
//   normalize    "error host=web1" -> "search error host=web1": a text whose
//                first word does not name a command gets "search " in
//                front; one that starts with a command ("search ...",
//                "inputcsv x | ...", "| metadata ...") is left as it is
//   highlightTerms  the plain words of the first `search` command, for
//                colouring events: no field=value, key::value, comparisons,
//                AND/OR, NOT and the word after it, parentheses; quotes
//                and '*' are dropped
//   parseTime    --earliest/--latest: the time words of the search language
//                ("-15m", "-1d@d", "now", ISO 8601, epoch seconds)
//
// Stateless; any thread.
#pragma once

#include <ctime>
#include <functional>
#include <vector>

#include "util/Str.h"

class SearchText {
 public:
  // `isCommand` answers whether a word names a search command.
  static Str normalize(const Str& text, const std::function<bool(const Str&)>& isCommand);
  static std::vector<Str> highlightTerms(const Str& search);
  // False when the text is no time the search language knows.
  static bool parseTime(const Str& text, time_t now, int64_t& out);
};
