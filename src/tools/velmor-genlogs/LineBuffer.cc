#include "LineBuffer.h"

#include <cstring>

LineBuffer::LineBuffer() : _buf(new char[kCapacity]) {}

LineBuffer::~LineBuffer() {
  close();
  delete[] _buf;
}

bool LineBuffer::open(const std::string& path) {
  close();
  _file = std::fopen(path.c_str(), "wb");
  _len = 0;
  _written = 0;
  _lines = 0;
  _failed = false;
  return _file != nullptr;
}

bool LineBuffer::close() {
  if (!_file) return !_failed;
  drain();
  if (std::fclose(_file) != 0) _failed = true;
  _file = nullptr;
  return !_failed;
}

void LineBuffer::drain() {
  if (_len == 0) return;
  if (_file && std::fwrite(_buf, 1, _len, _file) != _len) _failed = true;
  _written += _len;
  _len = 0;
}

void LineBuffer::put(std::string_view s) {
  while (!s.empty()) {
    if (_len == kCapacity) drain();
    const size_t n = std::min(s.size(), kCapacity - _len);
    std::memcpy(_buf + _len, s.data(), n);
    _len += n;
    s.remove_prefix(n);
  }
}

void LineBuffer::putUint(uint64_t v) {
  char tmp[20];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) put(tmp[--n]);
}

void LineBuffer::putInt(int64_t v) {
  if (v < 0) {
    put('-');
    putUint(static_cast<uint64_t>(-(v + 1)) + 1);
  } else {
    putUint(static_cast<uint64_t>(v));
  }
}

void LineBuffer::putPadded(uint64_t v, int width) {
  char tmp[20];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v && n < 20);
  while (n < width && n < 20) tmp[n++] = '0';
  while (n) put(tmp[--n]);
}

void LineBuffer::putHex(uint64_t v, int digits) {
  static const char kHex[] = "0123456789abcdef";
  for (int i = digits - 1; i >= 0; --i) put(kHex[(v >> (4 * i)) & 0xF]);
}

void LineBuffer::putCents(uint64_t hundredths) {
  putUint(hundredths / 100);
  put('.');
  putPadded(hundredths % 100, 2);
}
