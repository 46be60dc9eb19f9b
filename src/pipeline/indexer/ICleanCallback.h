// ICleanCallback: receives the segments that GenericCleaner::tokenize finds.
//
// `term` is the lowercased segment, NUL-terminated, valid only during the
// call (it points into the cleaner's buffer); `len` is its length. `start`
// and `end` are the byte offsets of the segment in the text given to
// tokenize (end exclusive). Returning false ends the walk.
// Called on the thread that runs tokenize.
#pragma once

#include <cstddef>

class ICleanCallback {
 public:
  virtual ~ICleanCallback() = default;
  virtual bool acceptToken(const char* term, size_t len, size_t start, size_t end) = 0;
};
