// Timeval: a point in time (or a span) as a signed 64-bit count of seconds and
// a count of microseconds in [0, 999999].
//
// A Timeval is a plain value; any thread may use its own copies. Arithmetic
// saturates: adding past the largest value gives setToMax(), past the
// smallest setToMin(), so the extremes can stand for "never" and "always".
//
// Text forms:
//   renderUnixTime: "%lld" seconds, then optionally "." and N digits of the
//                   microseconds (truncated; padded with "0" beyond six).
//   setToUnixTime:  reads "digits" or "digits.digits"; digits beyond the
//                   sixth fractional one are ignored.
//   serialize:      14 characters of base 32 ("0"-"9", "A"-"V", most
//                   significant first):
//                     OFFSET SIZE MEANING
//                     0      8    seconds since 1601-01-01 (Unix seconds plus
//                                 11644473600, clamped to [0, 0xFFFFFFFFFF])
//                     8      6    nanoseconds (microseconds * 1000)
//   resurrect:      the reverse; fails on a wrong length, a bad digit or
//                   nanoseconds above 999999999; a time before 1970 gives
//                   setToMax().
#ifndef VELMOR_UTIL_TIMEVAL_H
#define VELMOR_UTIL_TIMEVAL_H

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#include "util/Str.h"

class StrSegment;
class TimeFormat;
class TimeGuesser;
struct TimeFormatRawParseResult;
struct ExtraTimevalParseInfo;

class Timeval {
 public:
  static constexpr int64_t kMinSec = INT64_MIN;
  static constexpr int64_t kMaxSec = INT64_MAX;

  constexpr Timeval() : _sec(0), _usec(0) {}
  // REQUIRES: 0 <= usec <= 999999.
  constexpr Timeval(int64_t sec, int32_t usec) : _sec(sec), _usec(usec) {}
  explicit Timeval(const struct timeval& tv) : _sec(tv.tv_sec), _usec(static_cast<int32_t>(tv.tv_usec)) {}

  int64_t sec() const { return _sec; }
  int32_t usec() const { return _usec; }
  void set(int64_t sec, int32_t usec) {
    _sec = sec;
    _usec = usec;
  }

  void setToNow();
  static Timeval now();
  void setToMin() { set(kMinSec, 0); }
  void setToMax() { set(kMaxSec, 999999); }
  bool isMin() const { return _sec == kMinSec && _usec == 0; }
  bool isMax() const { return _sec == kMaxSec && _usec == 999999; }

  // Saturating.
  void addSec(int64_t sec);
  void addMsec(int64_t msec);
  void addUsec(int64_t usec);

  // a - b in milliseconds, rounded up (toward +infinity): 1 us gives 1 ms.
  static int64_t msecDifference(const Timeval& a, const Timeval& b);
  // a - b in microseconds, exact (clamped to the int64 range).
  static int64_t usecDifference(const Timeval& a, const Timeval& b);
  // a - b for people: "-" first when a < b, then the span in hours, seconds,
  // milliseconds or microseconds, e.g. "1.500 seconds", "250 microseconds".
  static Str describeDifference(const Timeval& a, const Timeval& b);

  double toDouble() const { return static_cast<double>(_sec) + _usec / 1e6; }

  // false on anything but "digits" or "digits.digits", or seconds overflow.
  bool setToUnixTime(const StrSegment& text);
  // Appends to `out`.
  void renderUnixTime(Str& out, unsigned digits) const;
  // Writes the first `n` digits of the microseconds (zero-padded beyond six)
  // and a NUL. REQUIRES: buf holds n + 1 bytes. Returns n.
  size_t renderSubseconds(char* buf, unsigned n) const;

  Str serialize() const;
  bool resurrect(const StrSegment& text);

  // Completes `parse` with `guesser` and sets this time; false when the fields cannot make a time.
  // `extra` may be null.
  bool set(const TimeFormatRawParseResult& parse, TimeGuesser& guesser, ExtraTimevalParseInfo* extra);
  // rawParse with `format`, then set().
  bool parse(const char* begin, const char* end, const TimeFormat& format, TimeGuesser& guesser,
             ExtraTimevalParseInfo* extra);

  friend bool operator==(const Timeval& a, const Timeval& b) {
    return a._sec == b._sec && a._usec == b._usec;
  }
  friend bool operator<(const Timeval& a, const Timeval& b) {
    return a._sec < b._sec || (a._sec == b._sec && a._usec < b._usec);
  }
  friend bool operator<=(const Timeval& a, const Timeval& b) { return !(b < a); }
  friend bool operator>(const Timeval& a, const Timeval& b) { return b < a; }
  friend bool operator>=(const Timeval& a, const Timeval& b) { return !(a < b); }

 private:
  void setFromTotalUsec(__int128 total);
  __int128 totalUsec() const { return static_cast<__int128>(_sec) * 1000000 + _usec; }

  int64_t _sec;
  int32_t _usec;
};

#endif
