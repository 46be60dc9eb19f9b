// LineBuffer: a write buffer for one output file, with the small formatting
// helpers the event sources use (integers, zero padding, hex, fixed point).
//
// Text accumulates in memory and is written to the file in large blocks, so
// the generator spends its time making text, not in system calls. The buffer
// counts every byte and every line it was given, flushed or not.
//
// Owns its FILE* (opened by open(), closed by close() or the destructor).
// One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

class LineBuffer {
 public:
  LineBuffer();
  ~LineBuffer();
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  // Opens (truncates) the file. False with errno set on failure.
  bool open(const std::string& path);
  // Flushes and closes. False if any write failed since open().
  bool close();

  void put(char c) {
    if (_len == kCapacity) drain();
    _buf[_len++] = c;
  }
  void put(std::string_view s);
  void putUint(uint64_t v);
  void putInt(int64_t v);
  // v in decimal, left-padded with zeros to `width` digits.
  void putPadded(uint64_t v, int width);
  // v as lower-case hex, exactly `digits` digits (high digits dropped).
  void putHex(uint64_t v, int digits);
  // hundredths as "<int>.<2 digits>", e.g. 4250 -> "42.50".
  void putCents(uint64_t hundredths);
  // Ends a line: writes '\n' and counts it.
  void endLine() {
    put('\n');
    ++_lines;
  }

  uint64_t bytes() const { return _written + _len; }
  uint64_t lines() const { return _lines; }
  // Lines that continue the event above them (stack trace lines); the
  // file's events are lines() - continuations().
  void countContinuations(uint64_t n) { _continuations += n; }
  uint64_t continuations() const { return _continuations; }

 private:
  static constexpr size_t kCapacity = 1 << 20;
  void drain();

  std::FILE* _file = nullptr;
  char* _buf;
  size_t _len = 0;
  uint64_t _written = 0;
  uint64_t _lines = 0;
  uint64_t _continuations = 0;
  bool _failed = false;
};
