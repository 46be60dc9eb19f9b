#include "util/FileStar.h"

#include <cstdarg>

#include "util/StrSegment.h"

bool FileStar::close() {
  if (!_f) return false;
  const int rc = std::fclose(_f);
  _f = nullptr;
  return rc == 0;
}

bool FileStar::readline(Str& line) const {
  line.clear();
  if (!_f) return false;
  // Byte by byte under one stream lock: handles NUL bytes in the text and
  // lines of any length without a second buffer.
  flockfile(_f);
  bool any = false;
  int c;
  while ((c = getc_unlocked(_f)) != EOF) {
    any = true;
    if (c == '\n') break;
    line.push_back(static_cast<char>(c));
  }
  funlockfile(_f);
  return any;
}

bool FileStar::write(const StrSegment& text) const {
  return text.empty() || write(text.data(), text.size());
}

bool FileStar::printf(const char* fmt, ...) const {
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vfprintf(_f, fmt, ap);
  va_end(ap);
  return n >= 0;
}
