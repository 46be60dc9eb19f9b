// StrSegment: a pointer and a 64-bit length into text owned by someone else.
//
// A StrSegment owns nothing and is not NUL-terminated; the caller keeps the
// text alive for as long as the segment is used. It offers the read-only API
// of std::string (find, substr, compare, ...), the Str conversions (which copy
// into a temporary Str), trimming and prefix tests. None of the searching or
// comparing members allocates. A segment is a plain value; reading one from
// several threads is safe as long as the text does not change.
//
// Ordering: compare() compares the bytes as unsigned over the shorter length,
// then by the difference of the lengths taken as a 32-bit value.
#ifndef VELMOR_UTIL_STRSEGMENT_H
#define VELMOR_UTIL_STRSEGMENT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "util/CharacterClass.h"
#include "util/Str.h"

class StrSegment {
 public:
  static constexpr size_t npos = std::string::npos;

  constexpr StrSegment() : _p(nullptr), _len(0) {}
  constexpr StrSegment(const char* p, uint64_t len) : _p(p), _len(len) {}
  // A nullptr is the empty segment.
  StrSegment(const char* s) : _p(s), _len(s ? std::strlen(s) : 0) {}
  StrSegment(const std::string& s) : _p(s.data()), _len(s.size()) {}
  constexpr StrSegment(std::string_view v) : _p(v.data()), _len(v.size()) {}

  void assign(const char* p, uint64_t len) {
    _p = p;
    _len = len;
  }
  void clear() {
    _p = nullptr;
    _len = 0;
  }
  // Drop n bytes from the front (back); n is clipped to the length.
  void remove_prefix(size_t n) {
    if (n > _len) n = _len;
    _p += n;
    _len -= n;
  }
  void remove_suffix(size_t n) { _len -= n > _len ? _len : n; }

  const char* data() const { return _p; }
  size_t size() const { return _len; }
  size_t length() const { return _len; }
  bool empty() const { return _len == 0; }
  const char* begin() const { return _p; }
  const char* end() const { return _p + _len; }
  char operator[](size_t i) const { return _p[i]; }
  // Throws std::out_of_range past the end.
  char at(size_t i) const;
  char front() const { return _p[0]; }
  char back() const { return _p[_len - 1]; }
  std::string_view view() const { return _len ? std::string_view(_p, _len) : std::string_view(); }
  Str toStr() const { return Str(_p ? _p : "", _len); }

  // --- searching (same results as std::string) -----------------------------
  size_t find(char c, size_t pos = 0) const { return view().find(c, pos); }
  size_t find(const StrSegment& s, size_t pos = 0) const { return view().find(s.view(), pos); }
  size_t rfind(char c, size_t pos = npos) const { return view().rfind(c, pos); }
  size_t rfind(const StrSegment& s, size_t pos = npos) const { return view().rfind(s.view(), pos); }
  size_t find_first_of(const StrSegment& chars, size_t pos = 0) const {
    return view().find_first_of(chars.view(), pos);
  }
  size_t find_first_of(char c, size_t pos = 0) const { return find(c, pos); }
  size_t find_first_not_of(const StrSegment& chars, size_t pos = 0) const {
    return view().find_first_not_of(chars.view(), pos);
  }
  size_t find_first_not_of(char c, size_t pos = 0) const { return view().find_first_not_of(c, pos); }
  size_t find_last_of(const StrSegment& chars, size_t pos = npos) const {
    return view().find_last_of(chars.view(), pos);
  }
  size_t find_last_of(char c, size_t pos = npos) const { return rfind(c, pos); }
  size_t find_last_not_of(const StrSegment& chars, size_t pos = npos) const {
    return view().find_last_not_of(chars.view(), pos);
  }
  size_t find_last_not_of(char c, size_t pos = npos) const { return view().find_last_not_of(c, pos); }
  // By CharacterClass membership: first/last position that is (not) in cls.
  size_t find_first_of(const CharacterClass& cls, size_t pos = 0) const {
    return cclass_find(cls, _p, _len, pos, true);
  }
  size_t find_first_not_of(const CharacterClass& cls, size_t pos = 0) const {
    return cclass_find(cls, _p, _len, pos, false);
  }

  // Throws std::out_of_range if pos > size(); n is clipped.
  StrSegment substr(size_t pos = 0, size_t n = npos) const;
  int compare(const StrSegment& o) const;
  // Copies up to n bytes from pos into dest (no NUL); returns the count.
  // Throws std::out_of_range if pos > size().
  size_t copy(char* dest, size_t n, size_t pos = 0) const;
  size_t count_char(char c) const;

  // --- conversions, as Str's ------------------------------------------------
  bool tryToBool(bool& out) const { return toStr().tryToBool(out); }
  bool tryToLong(long& out) const { return toStr().tryToLong(out); }
  bool tryToLongLong(long long& out) const { return toStr().tryToLongLong(out); }
  bool tryToUnsignedLong(unsigned long& out) const { return toStr().tryToUnsignedLong(out); }
  bool tryToDouble(double& out) const { return toStr().tryToDouble(out); }
  bool toBool(bool defaultIfEmpty, bool defaultIfNotEmpty) const {
    return toStr().toBool(defaultIfEmpty, defaultIfNotEmpty);
  }
  long toLong(long def) const { return toStr().toLong(def); }
  long long toLongLong(long long def) const { return toStr().toLongLong(def); }
  unsigned long toUnsignedLong(unsigned long def) const { return toStr().toUnsignedLong(def); }
  double toDouble(double def) const { return toStr().toDouble(def); }

  // --- trimming and prefix tests --------------------------------------------
  StrSegment trim(const CharacterClass& cls = CharacterClass::whitespace(), bool left = true,
                  bool right = true) const;
  StrSegment& trimInPlace(const CharacterClass& cls = CharacterClass::whitespace(),
                          bool left = true, bool right = true);
  bool startswith(const StrSegment& prefix) const;
  bool startswith(const char* prefix) const { return startswith(StrSegment(prefix)); }
  bool startswith(char c) const { return _len && _p[0] == c; }
  bool startswith(const CharacterClass& cls) const { return _len && cls.contains(_p[0]); }
  bool endswith(const StrSegment& suffix) const;
  bool endswith(const char* suffix) const { return endswith(StrSegment(suffix)); }
  bool endswith(char c) const { return _len && _p[_len - 1] == c; }
  bool endswith(const CharacterClass& cls) const { return _len && cls.contains(_p[_len - 1]); }

  char* strdup() const;   // malloc'd, NUL-terminated
  char* copystr() const;  // new[]'d, NUL-terminated
  void appendTo(std::string& out) const {
    if (_len) out.append(_p, _len);
  }

  friend bool operator==(const StrSegment& a, const StrSegment& b) {
    return a._len == b._len && (a._len == 0 || std::memcmp(a._p, b._p, a._len) == 0);
  }
  friend bool operator<(const StrSegment& a, const StrSegment& b) { return a.compare(b) < 0; }
  friend bool operator>(const StrSegment& a, const StrSegment& b) { return a.compare(b) > 0; }
  friend bool operator<=(const StrSegment& a, const StrSegment& b) { return a.compare(b) <= 0; }
  friend bool operator>=(const StrSegment& a, const StrSegment& b) { return a.compare(b) >= 0; }

 private:
  const char* _p;
  uint64_t _len;
};

// Does the memory mem[0..memLen) begin (end) with pat[0..patLen)?
bool mem_startswith(const void* mem, size_t memLen, const void* pat, size_t patLen);
bool mem_endswith(const void* mem, size_t memLen, const void* pat, size_t patLen);

// Concatenations with a StrSegment on the left (Str on the left is in Str.h).
Str operator+(const StrSegment& a, const StrSegment& b);
Str operator+(const StrSegment& a, const Str& b);
Str operator+(const StrSegment& a, const char* b);
Str operator+(const StrSegment& a, char b);
Str operator+(const char* a, const StrSegment& b);
Str operator+(char a, const StrSegment& b);

#endif
