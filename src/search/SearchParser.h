// SearchParser: turns the text of a search into a SearchPipeline.
//
// Three passes:
//   1. _groupQuotes cuts the text into runs: quoted runs keep their quote
//      marks, a backslash protects the byte after it (both are kept);
//   2. _groupParens builds the tree of bracketed subsearches from the runs
//      (ListArgs of StringArgs), ignoring brackets inside quoted runs;
//   3. _parseQuery walks that tree, cuts each text at unquoted "|" into
//      commands, asks SearchFactory for each and hangs the argument text and
//      the parsed subsearches (ProcessorArgs) on them.
// Nothing is evaluated here: macros, expressions and time words belong to
// the commands.
//
// All failures come out of parse() as SearchProcessorException:
// "Unknown search operation: '<name>'" as it is, anything else followed by
// ", while parsing query:"<search>"".
// Stateless; any thread may call.
#pragma once

#include <vector>

#include "search/Arg.h"
#include "util/Str.h"

class SearchProcessor;
class SearchPipeline;

class SearchParser {
 public:
  // A new SearchPipeline, owned by the caller.
  static SearchProcessor* parse(const Str& search, bool allowInternal);
  // `word` as one argument word of search text: as it is unless it is empty
  // or holds white space, '"', ',', '|', '[' or ']', else in double quotes
  // with '"' and '\' escaped. For commands that build the text of inner
  // commands.
  static Str quoteWord(const Str& word);

  static void _groupQuotes(const Str& text, std::vector<Str>& runs);
  // Appends the top-level members to `out` (owned by the caller).
  static void _groupParens(const std::vector<Str>& runs, ArgList& out);
  static SearchPipeline* _parseQuery(const ArgList& groups, bool allowInternal);
  // Splits the command name and its argument text off the front of `text`;
  // `text` keeps the rest, starting at the next unquoted "|".
  static void _parseProc(Str& text, Str& name, Str& args);
  static void _setFunctionName(Str& text, Str& name);
  static void _setArgumentText(Str& text, Str& args);
};
