// Fuzz target: arbitrary bytes as a serialised pipeline record, as a saved
// queue file holds them. ressurrect either refuses the bytes or takes them
// whole, and what it took serialises back to the same bytes' meaning.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "framework/PipelineData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PipelineData d;
  if (!d.ressurrect(reinterpret_cast<const char*>(data), size)) return 0;
  Str again;
  d.serialize(again);
  PipelineData back;
  if (!back.ressurrect(again.data(), again.size()) || back.toString() != d.toString()) abort();
  return 0;
}
