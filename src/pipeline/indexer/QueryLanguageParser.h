// QueryLanguageParser: the text passes that the query compiler runs over an
// inner query string before it looks at tokens:
//
//   indexify              "a=b" -> "a::b", "a!=b" -> "NOT a::b" (outside quotes)
//   handleParensInQuery   grouping parentheses become tokens of their own
//   handleSavedVelmorsInSearch
//                         "savedsearch::<name>" / "savedvelmor::<name>" is
//                         replaced by "( " + the saved text + ") "
//   tokenizeString        splits on blanks, keeping quoted runs together
//
// Quoting: a double quote starts or ends a quoted run unless a backslash
// stands before it; inside a run nothing is rewritten and parentheses are
// literal. tokenizeString drops the quote marks and turns \" into ".
//
// Parentheses. A "(" that starts a word (at the start, or after a blank)
// opens a group and is written "( ". A "(" inside a word is part of the word
// ("foo(bar"), and so is the ")" that closes it within that word
// ("foo(bar)" stays one term). Any other ")" that ends a word (followed by a
// blank, possibly after more ")") closes a group and is written " )". A
// backslash before a parenthesis makes it literal and is removed ("\(").
//
// All members are stateless and may be called from any thread.
#pragma once

#include <vector>

#include "util/Str.h"

class QueryLanguageParser {
 public:
  // Most saved searches one query may expand (a saved search that names
  // itself would expand forever).
  static const int kMaxSavedSearchExpansions = 100;

  static Str indexify(const Str& text);
  // REQUIRES: text ends with a blank (the compiler appends one).
  static Str handleParensInQuery(const Str& text);
  // Expands every saved search named outside quotes, for `user`, through the
  // installed ISavedSearchSource; a name it does not know adds "Unable to
  // find savedvelmor <name>" to `info` and its token is dropped. The saved
  // text goes through indexify and handleParensInQuery first. Throws
  // QueryParseException past kMaxSavedSearchExpansions.
  static void handleSavedVelmorsInSearch(Str& text, const Str& user, std::vector<Str>& info);
  // The search text of a saved search: `text` itself, or when it holds
  // "<key>", the `key` elements under `keys` of that XML joined by blanks.
  static Str savedSearchText(const Str& text);
  // Appends the tokens of text to `tokens`. Returns 0, or the quote
  // character that was left open (the tokens are then incomplete).
  static char tokenizeString(const Str& text, std::vector<Str>& tokens);

  static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
};
