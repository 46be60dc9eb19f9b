// DateParserGuesser: the rules by which one stream's DateParser fills in what
// a time stamp leaves out.
//
// It holds the "now" of the stream (the reference time of the line being
// read, or the clock when the window was last set) and the date window
// around it; a fixed zone when the source has a TZ; the date a file name gave
// (setDateByString), moved on a day whenever the hour goes backwards; a cache
// of the last zone name (names under 8 bytes) and of the last hour's offset,
// since a daylight-saving lookup is dear.
//
// Owned by its DateParser; one thread.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/TimeGuesser.h"
#include "util/TimezoneGuessResult.h"

class Timezone;

class DateParserGuesser : public TimeGuesser {
 public:
  DateParserGuesser();

  // Caps ago at 10950 days and hence at 1825 days; the seconds are kept as
  // unsigned 32-bit values (so a negative count wraps to a very wide
  // window). Sets "now" to the clock.
  void setMinMaxDays(int ago, int hence);
  // The reference time of the line being read becomes "now".
  void setNow(int64_t now) { _now = now; }
  // Whether `t` lies inside the window around "now".
  bool withinDateWindow(int64_t t) const;

  // A fixed zone for names that are unknown or absent. False (and nothing
  // changed) when the name is no zone.
  bool setTZ(const Str& name);
  // The date from a file name; the last hour starts at 0. month 0-11.
  void setDate(int year, int month, int mday);
  void clearDate() { _haveDate = false; }

  bool guessTimezone(const char* name, TimezoneGuessResult& result) override;
  bool convertToGmt(const TimezoneGuessResult& zone, int64_t& seconds) override;
  bool guessDate(TimeFormatRawParseResult& parse, const TimezoneGuessResult& zone) override;
  int64_t current() override { return _now; }
  void currentDoy(int& year, int& doy) override;
  const Timezone& baseTimezone() override;

 private:
  int64_t _now = 0;
  uint32_t _agoSecs = 0;
  uint32_t _henceSecs = 0;

  const Timezone* _fixedZone = nullptr;

  // Zone name cache.
  bool _nameCached = false;
  char _cachedName[8] = {};
  TimezoneGuessResult _cachedResult;

  // One-hour offset cache of convertToGmt.
  const Timezone* _hourZone = nullptr;
  int64_t _hour = 0;
  int64_t _hourOffset = 0;

  // Date of setDate.
  bool _haveDate = false;
  TimeFormatRawParseResult _date;
  int _lastHour = 0;
};
