#include "search/SearchResultsInfo.h"

#include "util/Logger.h"

const Str SearchResultsInfo::MSG_ERROR("ERROR");
const Str SearchResultsInfo::MSG_WARN("WARN");
const Str SearchResultsInfo::MSG_INFO("INFO");

SearchResultsInfo::SearchResultsInfo() : startTime(Timeval::now()) {}

bool SearchResultsInfo::hasMessages(const Str& type) const {
  auto it = messages.find(type);
  return it != messages.end() && !it->second.empty();
}

void SearchResultsInfo::warnMissingFields(Logger& log, const std::set<Str>& fields) {
  if (fields.empty()) return;
  Str msg("Specified field(s) missing from results: ");
  bool first = true;
  for (const Str& f : fields) {
    if (!first) msg += ", ";
    first = false;
    msg += '\'';
    msg += f;
    msg += '\'';
  }
  log.warn(msg);
  addMessage(MSG_WARN, msg);
}
