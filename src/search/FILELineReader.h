// FILELineReader: a LineReader over a FileStar. It reads the stream in large
// blocks of its own, so after the first readLine the stream's position is
// unspecified. Lines keep their trailing white space. It closes the stream in
// close() (and on destruction) only if it was told it owns it.
#pragma once

#include <memory>

#include "search/LineReader.h"
#include "util/FileStar.h"

class FILELineReader : public LineReader {
 public:
  explicit FILELineReader(FileStar f, bool owns = false);
  ~FILELineReader() override;
  FILELineReader(const FILELineReader&) = delete;
  FILELineReader& operator=(const FILELineReader&) = delete;

  bool appendLine(Str& buf) override;
  void close() override;
  bool atEof() const override;
  bool valid() const override { return _f.isValid(); }

 private:
  bool fill();

  FileStar _f;
  bool _owns;
  std::unique_ptr<char[]> _buf;
  size_t _pos = 0;
  size_t _end = 0;
  bool _eof = false;
};
