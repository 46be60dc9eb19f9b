#include "util/PortableRand.h"

#include <cassert>
#include <mutex>

uint32_t PortableRand::nextBelow(uint32_t bound) {
  assert(bound > 0);
  // Reject the lowest (2^32 mod bound) values so that every residue is
  // equally likely.
  const uint32_t threshold = static_cast<uint32_t>(-bound) % bound;
  for (;;) {
    const uint32_t r = next();
    if (r >= threshold) return r % bound;
  }
}

namespace {
std::mutex g_randMutex;
PortableRand g_rand(0);
}  // namespace

void portable_srand(uint64_t seed) {
  std::lock_guard<std::mutex> lock(g_randMutex);
  g_rand.seed_with(seed);
}

uint32_t portable_rand() {
  std::lock_guard<std::mutex> lock(g_randMutex);
  return g_rand.next();
}
