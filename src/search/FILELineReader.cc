#include "search/FILELineReader.h"

#include <cstring>

namespace {
const size_t kBlock = 1 << 16;
}

FILELineReader::FILELineReader(FileStar f, bool owns) : _f(f), _owns(owns), _buf(new char[kBlock]) {}

FILELineReader::~FILELineReader() {
  if (_owns) close();
}

void FILELineReader::close() {
  if (_owns && _f.isValid()) _f.close();
  _f = FileStar();
  _pos = _end = 0;
  _eof = true;
}

bool FILELineReader::fill() {
  if (_eof || !_f.isValid()) return false;
  _pos = 0;
  _end = _f.read(_buf.get(), kBlock);
  if (_end == 0) {
    _eof = true;
    return false;
  }
  return true;
}

bool FILELineReader::atEof() const { return _pos >= _end && (_eof || !_f.isValid()); }

bool FILELineReader::appendLine(Str& buf) {
  bool any = false;
  while (true) {
    if (_pos >= _end && !fill()) {
      if (any) buf.push_back('\n');
      return any;
    }
    const char* start = _buf.get() + _pos;
    const size_t avail = _end - _pos;
    const char* nl = static_cast<const char*>(memchr(start, '\n', avail));
    if (nl) {
      const size_t n = static_cast<size_t>(nl - start) + 1;
      buf.append(start, n);
      _pos += n;
      return true;
    }
    buf.append(start, avail);
    _pos = _end;
    any = true;
  }
}
