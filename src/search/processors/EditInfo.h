// EditInfo: the internal `editinfo` command. Changes the context that
// travels beside the rows rather than the rows:
//   keywords="<w> <w>..."   adds highlighting keywords
//   searchtext=<text>       replaces the search text
//   earliest=<secs> latest=<secs>   the time bounds
//   resultscomplete=<bool>  the "results complete" flag
//   error=<t> warn=<t> info=<t>     appends a message of that type
// Streamable (the rows pass untouched). One thread at a time.
#pragma once

#include <optional>
#include <vector>

#include "search/SearchProcessor.h"

class EditInfo : public SearchProcessor {
 public:
  explicit EditInfo(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new EditInfo(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::vector<Str> _keywords;
  std::optional<Str> _searchText;
  std::optional<double> _earliest, _latest;
  std::optional<bool> _complete;
  std::vector<std::pair<Str, Str>> _messages;  // type, text
};
