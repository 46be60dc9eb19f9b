// LineShape: the shape of a log line, a short text that lines printed by the
// same format string share, and the test for a line that holds nothing.
//
// A shape is the first word of the line (letters and digits, starting at a
// letter, at most kMaxWord bytes) followed by the line's punctuation (every
// byte that is neither a letter nor a digit, "-" and "_" left out, at most
// kMaxPunct bytes). "Nov 23 10:00:01 web1 sshd[42]: Accepted" has the shape
// "Nov  ::  []: " and so has every other line of that kind.
//
// Pure functions on bytes (letters and digits of the C locale); no
// allocation; any thread.
#pragma once

#include <cstddef>

#include "util/Str.h"
#include "util/StrSegment.h"

class LineShape {
 public:
  static constexpr size_t kMaxWord = 10;
  static constexpr size_t kMaxPunct = 30;
  static constexpr size_t kMaxShape = kMaxWord + kMaxPunct;

  // Writes the shape of line[0, len) into out (room for kMaxShape bytes, no
  // NUL added) and returns its length.
  static size_t normalize(const char* line, size_t len, char* out);
  // The same into a Str (for tests and tools).
  static void normalize(const StrSegment& line, Str& out);

  // True when the text has nothing but white space (isspace) bytes; an
  // empty text is blank.
  static bool looksBlank(const char* text, size_t len);
  static bool looksBlank(const StrSegment& text) { return looksBlank(text.data(), text.size()); }
};
