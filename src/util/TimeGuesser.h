// TimeGuesser: fills in what a time text left out (the year, the date, the
// zone) from the clock and the default zone, and turns wall-clock seconds
// into UTC. Subclasses change the notion of "now" or of the default zone
// (tests fix current(); the ingestion side uses the reader's reference time).
//
// basic() is a process-wide instance without state of its own; any thread may
// use it. A subclass instance belongs to whoever made it.
#ifndef VELMOR_UTIL_TIMEGUESSER_H
#define VELMOR_UTIL_TIMEGUESSER_H

#include <cstdint>

#include "util/TimeFormatRawParseResult.h"
#include "util/TimezoneGuessResult.h"

class Timezone;

class TimeGuesser {
 public:
  virtual ~TimeGuesser();
  virtual bool guessTimezone(const char* name, TimezoneGuessResult& result);  // name may be null: default zone
  virtual bool convertToGmt(const TimezoneGuessResult& zone, int64_t& seconds); // wall -> UTC
  virtual bool guessYear(TimeFormatRawParseResult& parse);
  virtual bool guessDate(TimeFormatRawParseResult& parse, const TimezoneGuessResult& zone);
  virtual bool ambigiousDst(int64_t seconds);
  virtual bool usePmInstead(int64_t seconds);
  virtual int expandShortYear(int yy);
  virtual int64_t current();                        // time(nullptr) in the basic guesser
  virtual void currentDoy(int& year, int& doy);     // of current(), in the default zone; doy 0-based
  virtual const Timezone& baseTimezone();           // the default zone
  static TimeGuesser& basic();
};

#endif
