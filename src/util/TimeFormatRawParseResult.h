// TimeFormatRawParseResult: the fields a time format found in a text, before
// any guessing. `have` says which fields were written; the rest are left at
// their defaults. A plain value; each thread uses its own.
#ifndef VELMOR_UTIL_TIMEFORMATRAWPARSERESULT_H
#define VELMOR_UTIL_TIMEFORMATRAWPARSERESULT_H

#include <cstdint>

struct TimeFormatRawParseResult {
  enum : uint32_t {
    HAVE_UTCEPOCH = 0x80000000u, HAVE_TZOFFSET = 0x40000000u, HAVE_TZNAM = 0x20000000u,
    HAVE_YEAR = 0x10000000u, HAVE_CENTURY = 0x08000000u, HAVE_YEAR_IN_CENTURY = 0x04000000u,
    HAVE_MONTH = 0x02000000u, HAVE_MDAY = 0x01000000u, HAVE_HOUR24 = 0x00800000u,
    HAVE_HOUR12 = 0x00400000u, HAVE_AMPM = 0x00200000u, HAVE_MINUTE = 0x00100000u,
    HAVE_SECOND = 0x00080000u, HAVE_YDAY = 0x00000002u };
  uint32_t have = 0;
  int64_t utcepoch = 0;      // seconds since 1970, UTC (HAVE_UTCEPOCH)
  int32_t tzoffset = 0;      // seconds east of UTC (HAVE_TZOFFSET)
  char tzname[16] = {};      // zone name as written, NUL-terminated, cut to 15 bytes (HAVE_TZNAM)
  int year = 0;              // full year, e.g. 2026 (HAVE_YEAR)
  int century = 0;           // e.g. 20 (HAVE_CENTURY)
  int yearInCentury = 0;     // 0-99 (HAVE_YEAR_IN_CENTURY)
  int month = 0;             // 0-11 (HAVE_MONTH)
  int mday = 0;              // 1-31 (HAVE_MDAY)
  int yday = 0;              // 0-365 (HAVE_YDAY)
  int hour = 0;              // 0-23 with HAVE_HOUR24, 0-11 with HAVE_HOUR12 (12 stored as 0)
  bool pm = false;           // with HAVE_AMPM
  int minute = 0, second = 0;
  uint32_t fracsec = 0;      // the subsecond digits as a number, e.g. "047" -> 47
  int fracDigits = 0;        // how many digits were written (0 = none), at most 9 kept
  int yweek = -1, wday = -1; // for computeYdayFromYweek (strptime %U/%W with %w/%a)
  bool yweekFromMonday = false;  // %W (weeks start on Monday) rather than %U

  void clear();
  void mergeIn(const TimeFormatRawParseResult& other);   // takes the fields `other` has
  bool setYear(const char* b, const char* e);            // 4 digits: full year; 2 digits: year in century
  bool setMonth(const char* b, const char* e);           // English month name or 3-letter abbreviation, any case
  void setFracsec(const char* b, const char* e);         // digits only
  void computeMmddFromYday();                            // needs a year
  void computeYdayFromYweek();
  void incrementDay();                                   // moves year/month/mday on by one day
  bool mdayValidForMonth() const;                        // mday fits month (and Feb 29 leap years)
};

#endif
