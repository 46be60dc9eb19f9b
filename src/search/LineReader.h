// LineReader: a source of text lines for the CSV reader.
//
// Every line is delivered WITH its terminating "\n" (a last line without one
// gets one added), because the CSV reader glues lines back together to
// rebuild values that span lines. One thread at a time per object.
#pragma once

#include "util/Str.h"

class LineReader {
 public:
  virtual ~LineReader() = default;
  // Replaces `line` with the next line; false at end of input.
  bool readLine(Str& line) {
    line.clear();
    return appendLine(line);
  }
  // Appends the next line to `buf` (no allocation once `buf` has grown);
  // false at end of input, `buf` untouched.
  virtual bool appendLine(Str& buf) = 0;
  virtual void close() = 0;
  virtual bool atEof() const = 0;
  virtual bool valid() const = 0;
};
