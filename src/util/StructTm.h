// StructTm: broken-down calendar time (like struct tm) with our own calendar
// arithmetic (days from the civil date, proleptic Gregorian) and our own
// strftime, appendFtime. No libc time zone calls and no global locale.
//
// GmtStructTm is the UTC breakdown of an instant; LocalStructTm the breakdown
// in a Timezone (default: the process default zone); LocalStructTmHires also
// keeps microseconds for %l and %N. Plain values; each thread its own.
//
// appendFtime letters: %a %A %b %h %B %c %C %d %D %e %F %H %I %j %k %l
// (milliseconds, 3 digits) %m %M %n %N (9 digits) %3N %6N %9N %p %R %s %S %t
// %T %u %U %V %G %g %w %W %x %X %y %Y %z (+hhmm) %Z %%; other letters are
// copied as written.
#ifndef VELMOR_UTIL_STRUCTTM_H
#define VELMOR_UTIL_STRUCTTM_H

#include <cstdint>

#include "util/Str.h"

class Timezone;

class StructTm {
 public:
  int year = 1970;   // full year
  int month = 0;     // 0-11
  int mday = 1;      // 1-31
  int hour = 0, minute = 0, second = 0;
  int yday = 0;      // 0-365
  int wday = 4;      // 0 = Sunday
  int32_t gmtoff = 0;   // seconds east of UTC
  bool isDst = false;
  Str zoneAbbr;      // for %Z
  int32_t usec = 0;  // for %l and %N
  int64_t epoch = 0; // the instant (UTC seconds) for %s

  // Sets every field from UTC seconds shifted by `offset`.
  void setFromSeconds(int64_t utc, int32_t offset);
  // Appends `format` rendered with these fields.
  void appendFtime(Str& out, const char* format) const;
  Str ftime(const char* format) const {
    Str s;
    appendFtime(s, format);
    return s;
  }
  // Sets yday and wday from year/month/mday.
  void recomputeYdayAndWday();
  // Moves the date by `months` (may be negative), clamping mday to the month's length.
  void addCalendarMonths(int months);
  // The wall-clock fields as seconds since 1970 (as if UTC).
  int64_t wallSeconds() const;

  static bool isLeapYear(int year);
  static int daysInMonth(int year, int month);
  // Days since 1970-01-01 of a civil date (month 0-11); and the reverse.
  static int64_t daysFromCivil(int year, int month, int mday);
  static void civilFromDays(int64_t days, int& year, int& month, int& mday);
  // Week numbers as strftime %W, %U, %V and the year of %G.
  int yearWeekFromMonday() const;
  int yearWeekFromSunday() const;
  int yearISO8601() const;
  int yearWeekISO8601() const;
};

class GmtStructTm : public StructTm {
 public:
  explicit GmtStructTm(int64_t utc);
};

class LocalStructTm : public StructTm {
 public:
  explicit LocalStructTm(int64_t utc);
  LocalStructTm(int64_t utc, const Timezone& zone);
};

class LocalStructTmHires : public LocalStructTm {
 public:
  LocalStructTmHires(int64_t utc, int32_t usec);
  LocalStructTmHires(int64_t utc, int32_t usec, const Timezone& zone);
};

#endif
