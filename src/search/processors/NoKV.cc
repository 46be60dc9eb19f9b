#include "search/processors/NoKV.h"

#include <vector>

#include "search/SL.h"
#include "search/SearchResults.h"

bool NoKV::isEventField(const Str& name) {
  return name.startswith('_') || name == SL::Host || name == SL::Source || name == SL::SourceType ||
         name == SL::EventTypes || name == "index" || name == "linecount";
}

void NoKV::execute(SearchResults& results, SearchResultsInfo&) {
  std::vector<Str> drop;
  for (const auto& kv : results.getKeyMap())
    if (!isEventField(kv.first)) drop.push_back(kv.first);
  for (const Str& k : drop) results.removeKey(k);
}
