#include "pipeline/analysis/LineShape.h"

namespace {

inline bool isLetter(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool isAlnum(unsigned char c) { return isLetter(c) || isDigit(c); }
// isspace of the C locale.
inline bool isSpace(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

size_t LineShape::normalize(const char* line, size_t len, char* out) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(line);
  size_t n = 0;
  size_t i = 0;
  while (i < len && !isAlnum(p[i])) ++i;
  while (i < len && !isLetter(p[i])) ++i;
  for (size_t w = 0; i < len && isAlnum(p[i]) && w < kMaxWord; ++i, ++w) out[n++] = char(p[i]);
  for (size_t j = 0, k = 0; j < len && k < kMaxPunct; ++j) {
    unsigned char c = p[j];
    if (isAlnum(c) || c == '-' || c == '_') continue;
    out[n++] = char(c);
    ++k;
  }
  return n;
}

void LineShape::normalize(const StrSegment& line, Str& out) {
  char buf[kMaxShape];
  size_t n = normalize(line.data(), line.size(), buf);
  out.assign(buf, n);
}

bool LineShape::looksBlank(const char* text, size_t len) {
  for (size_t i = 0; i < len; ++i)
    if (!isSpace(static_cast<unsigned char>(text[i]))) return false;
  return true;
}
