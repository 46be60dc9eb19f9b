#include "util/StrSegment.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

char StrSegment::at(size_t i) const {
  if (i >= _len) throw std::out_of_range("StrSegment::at");
  return _p[i];
}

StrSegment StrSegment::substr(size_t pos, size_t n) const {
  if (pos > _len) throw std::out_of_range("StrSegment::substr");
  return StrSegment(_p + pos, std::min<uint64_t>(n, _len - pos));
}

int StrSegment::compare(const StrSegment& o) const {
  const size_t common = std::min(_len, o._len);
  if (common) {
    int r = std::memcmp(_p, o._p, common);  // memcmp compares as unsigned char
    if (r) return r;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(_len - o._len));
}

size_t StrSegment::copy(char* dest, size_t n, size_t pos) const {
  if (pos > _len) throw std::out_of_range("StrSegment::copy");
  const size_t k = std::min<uint64_t>(n, _len - pos);
  if (k) std::memcpy(dest, _p + pos, k);
  return k;
}

size_t StrSegment::count_char(char c) const {
  size_t n = 0;
  const char* p = _p;
  const char* e = _p + _len;
  while (p < e) {
    const void* hit = std::memchr(p, c, static_cast<size_t>(e - p));
    if (!hit) break;
    ++n;
    p = static_cast<const char*>(hit) + 1;
  }
  return n;
}

StrSegment StrSegment::trim(const CharacterClass& cls, bool left, bool right) const {
  StrSegment s(*this);
  return s.trimInPlace(cls, left, right);
}

StrSegment& StrSegment::trimInPlace(const CharacterClass& cls, bool left, bool right) {
  if (left)
    while (_len && cls.contains(*_p)) ++_p, --_len;
  if (right)
    while (_len && cls.contains(_p[_len - 1])) --_len;
  return *this;
}

bool StrSegment::startswith(const StrSegment& prefix) const {
  return mem_startswith(_p, _len, prefix._p, prefix._len);
}
bool StrSegment::endswith(const StrSegment& suffix) const {
  return mem_endswith(_p, _len, suffix._p, suffix._len);
}

char* StrSegment::strdup() const {
  char* r = static_cast<char*>(std::malloc(_len + 1));
  if (!r) return nullptr;
  if (_len) std::memcpy(r, _p, _len);
  r[_len] = '\0';
  return r;
}

char* StrSegment::copystr() const {
  char* r = new char[_len + 1];
  if (_len) std::memcpy(r, _p, _len);
  r[_len] = '\0';
  return r;
}

bool mem_startswith(const void* mem, size_t memLen, const void* pat, size_t patLen) {
  return patLen <= memLen && (patLen == 0 || std::memcmp(mem, pat, patLen) == 0);
}

bool mem_endswith(const void* mem, size_t memLen, const void* pat, size_t patLen) {
  return patLen <= memLen &&
         (patLen == 0 ||
          std::memcmp(static_cast<const char*>(mem) + (memLen - patLen), pat, patLen) == 0);
}

Str operator+(const StrSegment& a, const StrSegment& b) {
  Str r;
  r.reserve(a.size() + b.size());
  a.appendTo(r);
  b.appendTo(r);
  return r;
}
Str operator+(const StrSegment& a, const Str& b) {
  Str r;
  r.reserve(a.size() + b.size());
  a.appendTo(r);
  r.append(b);
  return r;
}
Str operator+(const StrSegment& a, const char* b) {
  Str r(a);
  r.append(b);
  return r;
}
Str operator+(const StrSegment& a, char b) {
  Str r(a);
  r.push_back(b);
  return r;
}
Str operator+(const char* a, const StrSegment& b) {
  Str r(a);
  b.appendTo(r);
  return r;
}
Str operator+(char a, const StrSegment& b) {
  Str r(1, a);
  b.appendTo(r);
  return r;
}
