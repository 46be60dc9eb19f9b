#include "util/Str.h"

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/StrSegment.h"

Str::Str(const StrSegment& seg) : std::string(seg.data() ? seg.data() : "", seg.size()) {}

Str& Str::operator=(const StrSegment& seg) {
  if (seg.empty())
    clear();
  else
    assign(seg.data(), seg.size());
  return *this;
}

Str& Str::operator+=(const StrSegment& seg) {
  seg.appendTo(*this);
  return *this;
}

// ---------------------------------------------------------------------------
// Conversions

bool Str::tryToBool(bool& out) const {
  const char* s = c_str();
  if (size() == 1) {
    if (s[0] == '1') return out = true, true;
    if (s[0] == '0') return out = false, true;
    return false;
  }
  if (strcasecmp(s, "true") == 0 || strcasecmp(s, "yes") == 0) return out = true, true;
  if (strcasecmp(s, "false") == 0 || strcasecmp(s, "no") == 0) return out = false, true;
  return false;
}

// Shared shape of the integer parsers: something must be read, nothing may be
// left over (an embedded NUL counts as left over), and ERANGE fails.
template <typename T, typename Fn>
static bool parseInteger(const Str& s, T& out, Fn fn) {
  const char* begin = s.c_str();
  char* end = nullptr;
  errno = 0;
  T v = fn(begin, &end, 10);
  if (end == begin || end != begin + s.size() || errno == ERANGE) return false;
  out = v;
  return true;
}

bool Str::tryToLong(long& out) const { return parseInteger(*this, out, std::strtol); }
bool Str::tryToLongLong(long long& out) const { return parseInteger(*this, out, std::strtoll); }
bool Str::tryToUnsignedLong(unsigned long& out) const {
  return parseInteger(*this, out, std::strtoul);
}

bool Str::tryToDouble(double& out) const {
  if (empty()) return false;
  const char c0 = front();
  if (!(c0 == '-' || (c0 >= '0' && c0 <= '9'))) return false;
  const char* begin = c_str();
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(begin, &end);
  if (end != begin + size() || errno != 0) return false;
  out = v;
  return true;
}

bool Str::toBool(bool defaultIfEmpty, bool defaultIfNotEmpty) const {
  if (empty()) return defaultIfEmpty;
  bool v;
  return tryToBool(v) ? v : defaultIfNotEmpty;
}
long Str::toLong(long def) const {
  long v;
  return tryToLong(v) ? v : def;
}
long long Str::toLongLong(long long def) const {
  long long v;
  return tryToLongLong(v) ? v : def;
}
unsigned long Str::toUnsignedLong(unsigned long def) const {
  unsigned long v;
  return tryToUnsignedLong(v) ? v : def;
}
double Str::toDouble(double def) const {
  double v;
  return tryToDouble(v) ? v : def;
}

// ---------------------------------------------------------------------------
// Formatting

// printf into `out` (appending). Tries a 256-byte stack buffer first; when the
// text does not fit, a heap buffer of exactly the needed size. If the C
// library reports a negative length (an encoding error), doubles the buffer a
// bounded number of times and gives up, leaving `out` unchanged.
static void appendPrintf(std::string& out, const char* fmt, va_list ap) {
  char stackBuf[256];
  va_list ap2;
  va_copy(ap2, ap);
  int n = std::vsnprintf(stackBuf, sizeof stackBuf, fmt, ap2);
  va_end(ap2);
  if (n >= 0 && static_cast<size_t>(n) < sizeof stackBuf) {
    out.append(stackBuf, static_cast<size_t>(n));
    return;
  }
  size_t cap = n >= 0 ? static_cast<size_t>(n) + 1 : 2 * sizeof stackBuf;
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::unique_ptr<char[]> heap(new char[cap]);
    va_copy(ap2, ap);
    n = std::vsnprintf(heap.get(), cap, fmt, ap2);
    va_end(ap2);
    if (n >= 0 && static_cast<size_t>(n) < cap) {
      out.append(heap.get(), static_cast<size_t>(n));
      return;
    }
    cap = n >= 0 ? static_cast<size_t>(n) + 1 : cap * 2;
  }
}

Str& Str::vformat(const char* fmt, va_list ap) {
  Str tmp;
  appendPrintf(tmp, fmt, ap);  // fmt's arguments may point into *this
  swap(tmp);
  return *this;
}

Str& Str::format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vformat(fmt, ap);
  va_end(ap);
  return *this;
}

Str& Str::appendVformat(const char* fmt, va_list ap) {
  appendPrintf(*this, fmt, ap);
  return *this;
}

Str& Str::appendFormat(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  appendPrintf(*this, fmt, ap);
  va_end(ap);
  return *this;
}

Str Str::fromFormat(const char* fmt, ...) {
  Str s;
  va_list ap;
  va_start(ap, fmt);
  appendPrintf(s, fmt, ap);
  va_end(ap);
  return s;
}

Str& Str::append_double(double v) { return appendFormat("%lf", v); }
Str& Str::append_longlong(long long v) { return appendFormat("%lld", v); }
Str& Str::append_unsignedlonglong(unsigned long long v) { return appendFormat("%llu", v); }

Str ToString(int v) { return Str().append_longlong(v); }
Str ToString(unsigned v) { return Str().append_unsignedlonglong(v); }
Str ToString(long v) { return Str().append_longlong(v); }
Str ToString(unsigned long v) { return Str().append_unsignedlonglong(v); }
Str ToString(long long v) { return Str().append_longlong(v); }
Str ToString(unsigned long long v) { return Str().append_unsignedlonglong(v); }
Str ToString(double v) { return Str().append_double(v); }

// ---------------------------------------------------------------------------
// Inspection

Str Str::trim(const CharacterClass& cls, bool left, bool right) const {
  return Str(StrSegment(*this).trim(cls, left, right));
}

Str& Str::trimInPlace(const CharacterClass& cls, bool left, bool right) {
  if (right) {
    size_t n = size();
    while (n && cls.contains((*this)[n - 1])) --n;
    resize(n);
  }
  if (left) {
    size_t i = 0;
    while (i < size() && cls.contains((*this)[i])) ++i;
    erase(0, i);
  }
  return *this;
}

bool Str::startswith(const StrSegment& prefix) const {
  return mem_startswith(data(), size(), prefix.data(), prefix.size());
}
bool Str::startswith(const char* prefix) const { return startswith(StrSegment(prefix)); }
bool Str::endswith(const StrSegment& suffix) const {
  return mem_endswith(data(), size(), suffix.data(), suffix.size());
}
bool Str::endswith(const char* suffix) const { return endswith(StrSegment(suffix)); }

size_t Str::count_char(char c) const { return StrSegment(*this).count_char(c); }

bool Str::containsWhitespace() const {
  return cclass_find(CharacterClass::whitespace(), data(), size(), 0, true) != npos;
}

char* Str::strdup() const { return StrSegment(*this).strdup(); }
char* Str::copystr() const { return StrSegment(*this).copystr(); }

// ---------------------------------------------------------------------------
// Free functions

void lowercaseInPlace(std::string& text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
}

Str lowercase(const StrSegment& text) {
  Str s(text);
  lowercaseInPlace(s);
  return s;
}

size_t replaceAllString(Str& text, const StrSegment& from, const StrSegment& to) {
  if (from.empty()) return 0;
  size_t pos = text.find(from.data(), 0, from.size());
  if (pos == Str::npos) return 0;
  // Build the result in one pass so that long texts stay linear.
  Str out;
  out.reserve(text.size());
  size_t start = 0, count = 0;
  while (pos != Str::npos) {
    out.append(text, start, pos - start);
    to.appendTo(out);
    start = pos + from.size();
    ++count;
    pos = text.find(from.data(), start, from.size());
  }
  out.append(text, start, Str::npos);
  text.swap(out);
  return count;
}

// ---------------------------------------------------------------------------
// Concatenation

Str operator+(const Str& a, const Str& b) {
  Str r;
  r.reserve(a.size() + b.size());
  r.append(a).append(b);
  return r;
}
Str operator+(const Str& a, const std::string& b) {
  Str r;
  r.reserve(a.size() + b.size());
  r.append(a).append(b);
  return r;
}
Str operator+(const std::string& a, const Str& b) {
  Str r;
  r.reserve(a.size() + b.size());
  r.append(a).append(b);
  return r;
}
Str operator+(const Str& a, std::string&& b) {
  b.insert(0, a);
  return Str(std::move(b));
}
Str operator+(Str&& a, std::string&& b) {
  a.append(b);
  return std::move(a);
}
Str operator+(std::string&& a, const Str& b) {
  a.append(b);
  return Str(std::move(a));
}
Str operator+(const Str& a, const StrSegment& b) {
  Str r;
  r.reserve(a.size() + b.size());
  r.append(a);
  b.appendTo(r);
  return r;
}
Str operator+(const Str& a, const char* b) {
  Str r(a);
  r.append(b);
  return r;
}
Str operator+(const Str& a, char b) {
  Str r(a);
  r.push_back(b);
  return r;
}
Str operator+(Str&& a, const Str& b) {
  a.append(b);
  return std::move(a);
}
Str operator+(Str&& a, const std::string& b) {
  a.append(b);
  return std::move(a);
}
Str operator+(Str&& a, const StrSegment& b) {
  b.appendTo(a);
  return std::move(a);
}
Str operator+(Str&& a, const char* b) {
  a.append(b);
  return std::move(a);
}
Str operator+(Str&& a, char b) {
  a.push_back(b);
  return std::move(a);
}
Str operator+(const char* a, const Str& b) {
  Str r(a);
  r.append(b);
  return r;
}
Str operator+(char a, const Str& b) {
  Str r(1, a);
  r.append(b);
  return r;
}
