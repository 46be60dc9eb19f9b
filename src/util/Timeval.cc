#include "util/Timeval.h"

#include <time.h>

#include <cstdio>

#include "util/StrSegment.h"

namespace {

constexpr int64_t kUnixTo1601 = 11644473600LL;
constexpr int64_t kMaxSerialSeconds = 0xFFFFFFFFFFLL;
constexpr char kBase32[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";

int64_t clampToInt64(__int128 v) {
  if (v > INT64_MAX) return INT64_MAX;
  if (v < INT64_MIN) return INT64_MIN;
  return static_cast<int64_t>(v);
}

int base32Value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'V') return c - 'A' + 10;
  return -1;
}

}  // namespace

void Timeval::setToNow() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  set(ts.tv_sec, static_cast<int32_t>(ts.tv_nsec / 1000));
}

Timeval Timeval::now() {
  Timeval t;
  t.setToNow();
  return t;
}

void Timeval::setFromTotalUsec(__int128 total) {
  const __int128 lo = static_cast<__int128>(kMinSec) * 1000000;
  const __int128 hi = static_cast<__int128>(kMaxSec) * 1000000 + 999999;
  if (total >= hi) {
    setToMax();
    return;
  }
  if (total <= lo) {
    setToMin();
    return;
  }
  __int128 s = total / 1000000;
  __int128 u = total % 1000000;
  if (u < 0) {
    u += 1000000;
    s -= 1;
  }
  set(static_cast<int64_t>(s), static_cast<int32_t>(u));
}

void Timeval::addSec(int64_t sec) { setFromTotalUsec(totalUsec() + static_cast<__int128>(sec) * 1000000); }
void Timeval::addMsec(int64_t msec) { setFromTotalUsec(totalUsec() + static_cast<__int128>(msec) * 1000); }
void Timeval::addUsec(int64_t usec) { setFromTotalUsec(totalUsec() + usec); }

int64_t Timeval::usecDifference(const Timeval& a, const Timeval& b) {
  return clampToInt64(a.totalUsec() - b.totalUsec());
}

int64_t Timeval::msecDifference(const Timeval& a, const Timeval& b) {
  const __int128 d = a.totalUsec() - b.totalUsec();
  __int128 ms = d / 1000;
  if (d % 1000 > 0) ++ms;  // truncation went down for positive remainders only
  return clampToInt64(ms);
}

// Appends "<value> <unit>" with the plural "s" unless value is exactly 1.
static void appendWhole(Str& out, long long value, const char* unit) {
  out.appendFormat("%lld %s%s", value, unit, value == 1 ? "" : "s");
}

// Appends a fractional value with 1, 2 or 3 decimals so that about four
// significant digits show.
static void appendFraction(Str& out, double value, const char* unit) {
  const int decimals = value >= 99.5 ? 1 : value >= 9.95 ? 2 : 3;
  out.appendFormat("%5.*f %ss", decimals, value, unit);
}

Str Timeval::describeDifference(const Timeval& a, const Timeval& b) {
  Str out;
  __int128 d = a.totalUsec() - b.totalUsec();
  if (a < b) {
    out.push_back('-');
    d = -d;
  }
  const double dd = static_cast<double>(d);
  if (dd > 8e9) {
    appendFraction(out, dd / 3.6e9, "hour");
  } else if (dd > 3e6) {
    appendFraction(out, dd / 1e6, "second");
  } else if (dd > 3000) {
    if (a._usec % 1000 == 0 && b._usec % 1000 == 0)
      appendWhole(out, static_cast<long long>(d / 1000), "millisecond");
    else
      appendFraction(out, dd / 1e3, "millisecond");
  } else {
    appendWhole(out, static_cast<long long>(d), "microsecond");
  }
  return out;
}

bool Timeval::setToUnixTime(const StrSegment& text) {
  size_t i = 0;
  const size_t n = text.size();
  __int128 sec = 0;
  const size_t intStart = i;
  for (; i < n && text[i] >= '0' && text[i] <= '9'; ++i) {
    sec = sec * 10 + (text[i] - '0');
    if (sec > kMaxSec) return false;
  }
  if (i == intStart) return false;
  int32_t usec = 0;
  if (i < n) {
    if (text[i] != '.') return false;
    ++i;
    const size_t fracStart = i;
    int weight = 100000;
    for (; i < n; ++i) {
      const char c = text[i];
      if (c < '0' || c > '9') return false;
      usec += (c - '0') * weight;
      weight /= 10;
    }
    if (i == fracStart) return false;
  }
  set(static_cast<int64_t>(sec), usec);
  return true;
}

size_t Timeval::renderSubseconds(char* buf, unsigned n) const {
  char six[8];
  std::snprintf(six, sizeof six, "%06d", static_cast<int>(_usec));
  for (unsigned i = 0; i < n; ++i) buf[i] = i < 6 ? six[i] : '0';
  buf[n] = '\0';
  return n;
}

void Timeval::renderUnixTime(Str& out, unsigned digits) const {
  out.appendFormat("%lld", static_cast<long long>(_sec));
  if (digits > 0) {
    out.push_back('.');
    const size_t at = out.size();
    out.resize(at + digits + 1);
    renderSubseconds(&out[at], digits);
    out.resize(at + digits);
  }
}

Str Timeval::serialize() const {
  __int128 s = static_cast<__int128>(_sec) + kUnixTo1601;
  if (s < 0) s = 0;
  if (s > kMaxSerialSeconds) s = kMaxSerialSeconds;
  uint64_t secs = static_cast<uint64_t>(s);
  uint64_t ns = static_cast<uint64_t>(_usec > 999999 ? 999999 : (_usec < 0 ? 0 : _usec)) * 1000;
  char buf[14];
  for (int i = 7; i >= 0; --i, secs >>= 5) buf[i] = kBase32[secs & 31];
  for (int i = 13; i >= 8; --i, ns >>= 5) buf[i] = kBase32[ns & 31];
  return Str(buf, sizeof buf);
}

bool Timeval::resurrect(const StrSegment& text) {
  if (text.size() != 14) return false;
  uint64_t secs = 0, ns = 0;
  for (size_t i = 0; i < 14; ++i) {
    const int v = base32Value(text[i]);
    if (v < 0) return false;
    if (i < 8)
      secs = (secs << 5) | static_cast<uint64_t>(v);
    else
      ns = (ns << 5) | static_cast<uint64_t>(v);
  }
  if (ns > 999999999) return false;
  if (secs < static_cast<uint64_t>(kUnixTo1601)) {
    setToMax();
    return true;
  }
  setFromTotalUsec(static_cast<__int128>(static_cast<int64_t>(secs) - kUnixTo1601) * 1000000 +
                   static_cast<__int128>((ns + 500) / 1000));
  return true;
}
