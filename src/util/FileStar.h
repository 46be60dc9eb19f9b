// FileStar: a bare FILE* with a few members for line-oriented text files. It
// does not own the stream: nothing closes it implicitly (ScopedFileStar
// does). Failure is told by return values, never by exceptions.
// One thread at a time per object (stdio's own locking aside).
#ifndef VELMOR_UTIL_FILESTAR_H
#define VELMOR_UTIL_FILESTAR_H

#include <cstdio>

#include "util/Str.h"

class StrSegment;

class FileStar {
 public:
  constexpr FileStar() : _f(nullptr) {}
  constexpr explicit FileStar(FILE* f) : _f(f) {}

  FILE* get() const { return _f; }
  bool isValid() const { return _f != nullptr; }

  // fclose; the object becomes invalid even if fclose fails.
  bool close();
  FILE* release() {
    FILE* f = _f;
    _f = nullptr;
    return f;
  }

  // Reads one line into `line` (replacing it) without its "\n". Returns false
  // at end of file (or on error) when nothing was read; a last line without
  // "\n" is still returned.
  bool readline(Str& line) const;
  size_t read(void* buf, size_t len) const { return std::fread(buf, 1, len, _f); }
  bool write(const void* buf, size_t len) const { return std::fwrite(buf, 1, len, _f) == len; }
  bool write(const StrSegment& text) const;
  bool printf(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));
  bool flush() const { return std::fflush(_f) == 0; }
  bool eof() const { return std::feof(_f) != 0; }
  bool error() const { return std::ferror(_f) != 0; }

 protected:
  FILE* _f;
};

#endif
