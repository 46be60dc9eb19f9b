// StringLineReader: a LineReader over text held in memory. Trailing white
// space of the whole text is dropped first. The text is copied. One thread at
// a time.
#pragma once

#include "search/LineReader.h"

class StringLineReader : public LineReader {
 public:
  explicit StringLineReader(const Str& text);

  bool appendLine(Str& buf) override;
  void close() override { _pos = _text.size(); }
  bool atEof() const override { return _pos >= _text.size(); }
  bool valid() const override { return true; }

 private:
  Str _text;
  size_t _pos = 0;
};
