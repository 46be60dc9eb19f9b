// RexCommand: the `rex` command: one regular expression typed in the search
// sets a field for each of its named groups.
//
//   rex [field=<field>] <regex>
//
// The field read is _raw unless field= names another. The argument text is
// read whole (a pattern may hold blanks and commas); a pattern in double
// quotes loses them. Refused at argument time: no pattern ("usage: regex
// [field=<field>] <regex>"), a second pattern ("Invalid argument: '%s'"), a
// pattern that does not compile, and a pattern without a named group ("The
// regex '%s' will not extract anything.  It should specify at least one named
// group, format: (?<name>...).").
//
// Per row that has the field: one match (the first); each named group that
// took part sets its field, in the order of the group names; a row without a
// match is left as it is. The pattern is JIT-compiled once; group names are
// resolved to key indices once per run, and the match data is reused, so a
// row costs no allocation beyond the values set. Streamable; one thread.
#pragma once

#include <utility>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"

class RexCommand : public SearchProcessor {
 public:
  explicit RexCommand(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new RexCommand(name); }

  void parseArguments() override {}
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  const Str& getField() const { return _field; }
  const Regex& getRegex() const { return _re; }

 private:
  Str _field = "_raw";
  Regex _re;
  RegexMatch _match;
  std::vector<std::pair<unsigned, sr_index_t>> _groups;  // group -> key, by name
  Str _copy;
};
