// QueryTime ("time"): narrows the time range of the query by one time
// keyword. It looks for the keywords in a fixed order (starttime, endtime,
// starttimeu, endtimeu, daysago, hoursago, minutesago, monthsago,
// start*ago, end*ago, searchtimespan*) and applies the first one it holds,
// so the language file gives each keyword a module entry of its own.
//
// Dates are read in "%m/%d/%Y:%H:%M:%S" unless the query gives
// "timeformat::": the module's own, else the first one any "SEARCH" module
// of the query took (a format given once serves every time keyword).
// TimeParseException and ValidationException become QueryException; none
// of the keywords: QueryException "Unable to find time argument".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryTime : public Module {
 public:
  static const char* const kKeywords[];
  static const size_t kKeywordCount;
  static const char kDefaultFormat[];

  using Module::Module;
  void runModule() override;
};
