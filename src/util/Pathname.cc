// Pathname: the textual rules (joining, elements, extensions, separators).
#include "util/Pathname.h"

Pathname& Pathname::operator/=(const StrSegment& right) {
  if (right.empty()) return *this;
  StrSegment r(right);
  while (!r.empty() && r.front() == '/') r.remove_prefix(1);
  if (empty() || back() != '/') push_back('/');
  r.appendTo(*this);
  return *this;
}

// [begin, end) of the last element, trailing separators ignored. For a path
// of separators only (or empty) the range is empty.
static void lastElement(const Str& p, size_t& begin, size_t& end) {
  end = p.size();
  while (end > 0 && p[end - 1] == '/') --end;
  begin = end;
  while (begin > 0 && p[begin - 1] != '/') --begin;
}

Pathname Pathname::toLeaf() const {
  size_t b, e;
  lastElement(*this, b, e);
  if (b == e) return Pathname("/");
  return Pathname(substr(b, e - b));
}

Pathname Pathname::toParent() const {
  Pathname p(*this);
  p.stripElement();
  return p;
}

Pathname& Pathname::stripElement() {
  removeTrailingSeps();
  size_t cut = size();
  while (cut > 0 && (*this)[cut - 1] != '/') --cut;
  resize(cut);
  removeTrailingSeps();
  return *this;
}

Str Pathname::ext() const {
  size_t b, e;
  lastElement(*this, b, e);
  for (size_t i = e; i > b; --i)
    if ((*this)[i - 1] == '.') return Str(substr(i, e - i));
  return Str();
}

Str Pathname::basenameWithoutExt() const {
  size_t b, e;
  lastElement(*this, b, e);
  for (size_t i = e; i > b; --i) {
    if ((*this)[i - 1] == '.') {
      if (i - 1 == b) break;  // ".conf": the dot starts the element
      return Str(substr(b, i - 1 - b));
    }
  }
  return Str(substr(b, e - b));
}

Pathname& Pathname::removeTrailingSeps() {
  size_t n = size();
  while (n > 1 && (*this)[n - 1] == '/') --n;
  resize(n);
  return *this;
}

Pathname& Pathname::addTrailingSep() {
  if (empty() || back() != '/') push_back('/');
  return *this;
}

Pathname& Pathname::removeDoubleSeps() {
  size_t w = 0;
  for (size_t r = 0; r < size(); ++r) {
    const char c = (*this)[r];
    if (c == '/' && w > 0 && (*this)[w - 1] == '/') continue;
    (*this)[w++] = c;
  }
  resize(w);
  return *this;
}

Pathname& Pathname::removeDotDotSlash() {
  size_t from = 0;
  for (;;) {
    const size_t p = find("/..", from);
    if (p == npos) break;
    const size_t after = p + 3;
    if (after < size() && (*this)[after] != '/') {  // "/..x" is no ".." element
      from = p + 1;
      continue;
    }
    size_t s = p;
    while (s > 0 && (*this)[s - 1] != '/') --s;
    const size_t elemLen = p - s;
    const bool removable = elemLen > 0 && !(elemLen == 1 && (*this)[s] == '.') &&
                           !(elemLen == 2 && (*this)[s] == '.' && (*this)[s + 1] == '.');
    if (!removable) {
      from = p + 1;
      continue;
    }
    erase(s, (after < size() ? after + 1 : after) - s);
    from = 0;  // a removal may expose a new "elem/../" to the left
  }
  return *this;
}
