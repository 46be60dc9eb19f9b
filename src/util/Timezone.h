// Timezone: the rules that map UTC instants to local wall-clock offsets.
//
// A zone is a constant offset, a POSIX TZ rule ("EST5EDT,M3.2.0,M11.1.0"), or
// a zoneinfo (TZif) table with an optional POSIX footer for instants past the
// table. Zones found by name live in a process-wide registry (a map under a
// Mutex): they are created once and never freed, so a `const Timezone*` from
// find() stays valid for the life of the process. A Timezone is immutable
// once built; any thread may call its const methods.
#ifndef VELMOR_UTIL_TIMEZONE_H
#define VELMOR_UTIL_TIMEZONE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "util/Str.h"

class Timezone {
 public:
  // A zone by name: "UTC"/"GMT", a POSIX TZ text ("EST5EDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3"),
  // a zoneinfo name ("Europe/Berlin", looked up under $TZDIR or /usr/share/zoneinfo), ":name", or a
  // common abbreviation ("EST", "PDT", "CET", "CEST", "JST", ...: constant offsets).
  // Null when unknown. Thread-safe; the result lives for the process.
  static const Timezone* find(const Str& name);
  static const Timezone& getDefaultTimezone();   // $TZ, else /etc/localtime, else UTC
  static const Timezone& gmt();
  // Zoneinfo (TZif) data: version 1 block and, when present, the 64-bit block of versions 2+ and its footer.
  static Timezone* fromAncientZoneinfoData(const char* data, size_t length);   // null on bad data
  static Timezone* fromPosixTZ(const char* text);                             // null on bad text
  // A zone with one offset (seconds east of UTC) at all times.
  static Timezone* fixed(const Str& name, int32_t offset);

  // Offset (seconds east of UTC) in force at `utc`.
  int32_t offsetAt(int64_t utc, bool* isDst = nullptr) const;
  // The abbreviation in force at `utc` ("EST", "CEST"); may be empty.
  const char* abbreviationAt(int64_t utc) const;
  // Local wall-clock seconds (as if UTC) -> UTC seconds. False when no rule applies.
  // On an overlap the earlier (first) reading wins; in a gap the standard offset is used.
  bool convertToGmt(int64_t& wallSeconds) const;
  const Str& name() const;

  ~Timezone();

  // One local time type of a table or rule.
  struct LocalType {
    int32_t offset = 0;
    bool isDst = false;
    Str abbr;
  };
  // A POSIX "Mm.w.d", "Jn" or "n" date with its time of day (seconds, may be negative or > 24h).
  struct Rule {
    char kind = 0;   // 'M', 'J' or 'D'
    int month = 0, week = 0, wday = 0, day = 0;
    int32_t secs = 7200;
  };

 private:
  Timezone() = default;
  Timezone(const Timezone&) = delete;
  Timezone& operator=(const Timezone&) = delete;

  // Index into _types of the type in force at `utc`.
  const LocalType& searchAt(int64_t utc) const;
  const LocalType& posixAt(int64_t utc) const;
  static bool parsePosix(const char* text, Timezone& tz);
  // Both POSIX transitions (UTC) in `year`: start of DST and its end.
  void posixTransitions(int year, int64_t& dstStart, int64_t& dstEnd) const;

  Str _name;
  // Table part: transition instants (UTC, ascending) and the type index taking effect at each.
  std::vector<int64_t> _transitions;
  std::vector<uint8_t> _transitionTypes;
  std::vector<LocalType> _types;
  size_t _firstType = 0;   // the type before the first transition
  // POSIX part (the whole zone, or the footer after the table).
  bool _hasPosix = false;
  LocalType _std, _dst;
  bool _posixHasDst = false;
  Rule _start, _end;
};

#endif
