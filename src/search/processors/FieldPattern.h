// FieldPattern: a field-name pattern in which "*" matches any run of bytes
// (case-sensitive), with the texts the stars matched, and the reverse step
// of filling another pattern's stars with them. Used by `fields` and
// `rename`. Plain value; any thread may use its own.
#pragma once

#include <vector>

#include "util/Str.h"

class FieldPattern {
 public:
  explicit FieldPattern(const Str& pattern) : _pattern(pattern) {}

  bool hasWildcard() const { return _pattern.find('*') != Str::npos; }
  size_t starCount() const { return _pattern.count_char('*'); }
  // Whole-text match; `stars` gets what each star matched (leftmost,
  // shortest).
  bool match(const Str& text, std::vector<Str>* stars = nullptr) const;
  // The pattern with its stars replaced by `stars` in order.
  Str fill(const std::vector<Str>& stars) const;
  const Str& text() const { return _pattern; }

 private:
  bool matchFrom(size_t p, const Str& text, size_t t, std::vector<Str>* stars) const;
  Str _pattern;
};
