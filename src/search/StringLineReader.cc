#include "search/StringLineReader.h"

#include <cstring>

StringLineReader::StringLineReader(const Str& text) : _text(text) {
  size_t n = _text.size();
  while (n > 0 && (_text[n - 1] == ' ' || _text[n - 1] == '\t' || _text[n - 1] == '\n' ||
                   _text[n - 1] == '\r' || _text[n - 1] == '\v' || _text[n - 1] == '\f'))
    --n;
  _text.resize(n);
}

bool StringLineReader::appendLine(Str& buf) {
  if (_pos >= _text.size()) return false;
  const char* start = _text.data() + _pos;
  const size_t avail = _text.size() - _pos;
  const char* nl = static_cast<const char*>(memchr(start, '\n', avail));
  if (nl) {
    const size_t n = static_cast<size_t>(nl - start) + 1;
    buf.append(start, n);
    _pos += n;
  } else {
    buf.append(start, avail);
    buf.push_back('\n');
    _pos = _text.size();
  }
  return true;
}
