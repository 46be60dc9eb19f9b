#include "pipeline/indexer/QueryTime.h"

#include <ctime>

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryTime");

const char* const QueryTime::kKeywords[] = {
    "starttime",       "endtime",         "starttimeu",          "endtimeu",
    "daysago",         "hoursago",        "minutesago",          "monthsago",
    "startdaysago",    "startminutesago", "starthoursago",       "startmonthsago",
    "enddaysago",      "endminutesago",   "endhoursago",         "endmonthsago",
    "searchtimespanhours", "searchtimespanminutes", "searchtimespandays", "searchtimespanmonths"};
const size_t QueryTime::kKeywordCount = sizeof(kKeywords) / sizeof(kKeywords[0]);
const char QueryTime::kDefaultFormat[] = "%m/%d/%Y:%H:%M:%S";

void QueryTime::runModule() {
  for (size_t i = 0; i < kKeywordCount; ++i) {
    const Str keyword = kKeywords[i];
    if (!hasArg(keyword)) continue;
    Str format = getArg("timeformat");
    if (format.empty())
      for (const auto& m : _query->modules("SEARCH"))
        if (m->hasArg("timeformat")) {
          format = m->getArg("timeformat");
          break;
        }
    if (format.empty()) format = kDefaultFormat;
    const time_t now = _query->getSubmitted() ? _query->getSubmitted() : ::time(nullptr);
    QueryStateMachine& sm = _query->stateMachine();
    try {
      sm.getTimeParser().parse(keyword, getArg(keyword), format, now);
    } catch (const TimeParseException& e) {
      throw QueryException(e.what());
    } catch (const ValidationException& e) {
      throw QueryException(e.what());
    }
    gLogger.debug("%s::%s gives the time range %lld to %lld", keyword.c_str(), getArg(keyword).c_str(),
                  (long long)sm.getTimeParser().getMinTime(), (long long)sm.getTimeParser().getMaxTime());
    return;
  }
  throw QueryException("Unable to find time argument");
}
