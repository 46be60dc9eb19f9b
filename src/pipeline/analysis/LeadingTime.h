// LeadingTime: reads the time stamp at the start of a log line, in the forms
// the index tool knows:
//
//   ISO-8601      "2026-11-23T13:05:56", "2026-11-23 13:05:56,123",
//                 with "Z", "+01:00" or "-0500" after it or nothing
//   syslog        "Nov 23 13:05:56" (the year is the reference year; a
//                 time more than a day past the reference moves a year back)
//   common log    "[23/Nov/2026:13:05:56 +0000]", at the start or after
//                 the three fields "host ident user"
//   bracketed     "[Mon Nov 23 13:05:56 2026]"
//   JSON          {"time":"<ISO-8601>", ...} (also "timestamp", "@timestamp"),
//                 the time being the first member
//
// Times without a zone are read as UTC. Fractions of a second are dropped.
// A plain value holding only the reference time; parse() allocates nothing
// and any thread may call it.
#pragma once

#include <cstdint>

#include "util/StrSegment.h"

class LeadingTime {
 public:
  // reference: the time a syslog stamp (which has no year) is taken near,
  // normally the file's modification time.
  explicit LeadingTime(int64_t reference);

  // True, with the time in seconds since the epoch, when the line starts
  // with a stamp of a known form.
  bool parse(const StrSegment& line, int64_t& out) const;

  // An ISO-8601 date with optional time ("2026-11-23", "2026-11-23T10:00:00Z")
  // or decimal seconds since the epoch: the forms of --earliest and --latest.
  static bool parseBound(const StrSegment& text, int64_t& out);

  // Seconds since the epoch of a UTC civil time; month 1-12.
  static int64_t fromCivil(int64_t year, int month, int day, int hour, int minute, int second);

 private:
  // stop, when given, receives where the stamp ended.
  bool iso(const char* p, const char* end, int64_t& out, const char** stop = nullptr) const;
  bool syslog(const char* p, const char* end, int64_t& out) const;
  bool commonLog(const char* p, const char* end, int64_t& out) const;
  bool bracketed(const char* p, const char* end, int64_t& out) const;

  int64_t _reference;
  int64_t _referenceYear;
};
