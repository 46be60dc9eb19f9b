// Fuzz target for shell words. Two properties:
//  1. splitArgShellQuoted never reads out of bounds, and on success `rest` is
//     a suffix of the input that is empty or starts at a blank.
//  2. Any non-empty path, rendered by shellQuoted, splits back to itself with
//     nothing left over.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "util/Pathname.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const StrSegment input(text, size);

  Str first, rest;
  if (Pathname::splitArgShellQuoted(input, first, rest)) {
    if (rest.size() > size || !input.endswith(rest)) abort();
    if (!rest.empty() && rest[0] != ' ' && rest[0] != '\t' && rest[0] != '\n') abort();
  }

  const Pathname path(input);
  const Str quoted = path.shellQuoted();
  Str back, after;
  if (!Pathname::splitArgShellQuoted(quoted, back, after)) abort();
  if (back != path || !after.empty()) abort();
  return 0;
}
