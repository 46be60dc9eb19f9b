// CivilTime: a UTC calendar time broken down from milliseconds since the
// epoch, and the timestamp forms the generated log formats use.
//
// The conversion is pure arithmetic on the proleptic Gregorian calendar (no
// time zone database, no locale), so output does not depend on the machine.
// A value type; any thread.
#pragma once

#include <cstdint>

class LineBuffer;

class CivilTime {
 public:
  explicit CivilTime(int64_t epochMillis);

  // Days since 1970-01-01 of a calendar date, and the reverse.
  static int64_t daysFromCivil(int year, unsigned month, unsigned day);
  // Parses "YYYY-MM-DD" into days since the epoch. False on a malformed or
  // impossible date.
  static bool parseDate(const char* text, int64_t& days);

  // "Nov 16 08:12:03" (day space-padded), as classic syslog writes it.
  void appendSyslog(LineBuffer& out) const;
  // "16/Nov/2026:08:12:03 +0000", as web servers write it.
  void appendAccess(LineBuffer& out) const;
  // "2026-11-16T08:12:03.123Z".
  void appendIsoZ(LineBuffer& out) const;
  // "2026-11-16 08:12:03,123", as Java logging frameworks write it.
  void appendJava(LineBuffer& out) const;

  int year() const { return _year; }
  int month() const { return _month; }
  int day() const { return _day; }
  int hour() const { return _hour; }
  int weekday() const { return _weekday; }  // 0 = Sunday

 private:
  int _year, _month, _day, _hour, _minute, _second, _millis, _weekday;
};
