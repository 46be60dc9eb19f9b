#include "search/processors/EditInfo.h"

#include <cmath>

#include "search/SearchResultsInfo.h"

namespace {
Timeval toTimeval(double secs) {
  double whole = std::floor(secs);
  long usec = std::lround((secs - whole) * 1e6);
  if (usec > 999999) usec = 999999;
  return Timeval(static_cast<int64_t>(whole), static_cast<int32_t>(usec));
}
}  // namespace

void EditInfo::processArguments() {
  Str s;
  double d;
  bool b;
  if (getOption("keywords", s)) {
    std::vector<bool> quoted;
    tokenizeString(s, _keywords, quoted, " ");
  }
  if (getOption("searchtext", s)) _searchText = s;
  if (getOption("earliest", d)) _earliest = d;
  if (getOption("latest", d)) _latest = d;
  if (getOption("resultscomplete", b)) _complete = b;
  const std::pair<const char*, Str> kinds[] = {{"error", SearchResultsInfo::MSG_ERROR},
                                               {"warn", SearchResultsInfo::MSG_WARN},
                                               {"info", SearchResultsInfo::MSG_INFO}};
  for (const auto& k : kinds)
    if (getOption(k.first, s)) _messages.emplace_back(k.second, s);
  refuseLeftovers();
}

void EditInfo::execute(SearchResults&, SearchResultsInfo& info) {
  for (const Str& k : _keywords) info.keywords.insert(k);
  if (_searchText) info.searchText = *_searchText;
  if (_earliest) info.earliestTime = toTimeval(*_earliest);
  if (_latest) info.latestTime = toTimeval(*_latest);
  if (_complete) info.resultsComplete = *_complete;
  // Once per search, not once per chunk.
  for (const auto& m : _messages) info.addMessage(m.first, m.second);
  _messages.clear();
}
