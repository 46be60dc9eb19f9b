#include "search/processors/FieldPattern.h"

bool FieldPattern::matchFrom(size_t p, const Str& text, size_t t, std::vector<Str>* stars) const {
  while (p < _pattern.size() && _pattern[p] != '*') {
    if (t >= text.size() || text[t] != _pattern[p]) return false;
    ++p;
    ++t;
  }
  if (p == _pattern.size()) return t == text.size();
  for (size_t len = 0; t + len <= text.size(); ++len) {
    if (stars) stars->push_back(text.substr(t, len));
    if (matchFrom(p + 1, text, t + len, stars)) return true;
    if (stars) stars->pop_back();
  }
  return false;
}

bool FieldPattern::match(const Str& text, std::vector<Str>* stars) const {
  if (stars) stars->clear();
  return matchFrom(0, text, 0, stars);
}

Str FieldPattern::fill(const std::vector<Str>& stars) const {
  Str out;
  size_t k = 0;
  for (char c : _pattern) {
    if (c == '*') {
      if (k < stars.size()) out += stars[k++];
    } else {
      out += c;
    }
  }
  return out;
}
