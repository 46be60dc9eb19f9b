// portable_rand: a pseudo-random sequence that is the same on every platform,
// compiler and build, for code whose output must be reproducible (sampling,
// test data, randomised back-off that tests replay).
//
// The generator is PCG32 (PCG-XSH-RR with 64-bit state and a stream
// selector):
//   inc = (stream << 1) | 1
//   state = state * 6364136223846793005 + inc
//   output = rotr32(((old ^ (old >> 18)) >> 27), old >> 59)
// where `old` is the state before the step. Seeding: state = 0; step;
// state += seed; step. The default stream gives inc = 1442695040888963407.
//
// PortableRand objects are independent and each belongs to one thread. The
// free functions portable_rand()/portable_srand() drive one process-wide
// generator guarded by a mutex, seeded with 0 until portable_srand is called.
#ifndef VELMOR_UTIL_PORTABLERAND_H
#define VELMOR_UTIL_PORTABLERAND_H

#include <cstdint>

class PortableRand {
 public:
  static constexpr uint64_t kDefaultStream = 721347520444481703ULL;

  explicit PortableRand(uint64_t seed = 0, uint64_t stream = kDefaultStream) {
    seed_with(seed, stream);
  }

  void seed_with(uint64_t seed, uint64_t stream = kDefaultStream) {
    _inc = (stream << 1) | 1;
    _state = 0;
    next();
    _state += seed;
    next();
  }

  // The next 32-bit value of the sequence.
  uint32_t next() {
    const uint64_t old = _state;
    _state = old * 6364136223846793005ULL + _inc;
    const uint32_t xorshifted = static_cast<uint32_t>(((old >> 18) ^ old) >> 27);
    const uint32_t rot = static_cast<uint32_t>(old >> 59);
    return (xorshifted >> rot) | (xorshifted << ((32 - rot) & 31));
  }

  // A value uniform in [0, bound), without modulo bias. REQUIRES: bound > 0.
  uint32_t nextBelow(uint32_t bound);

 private:
  uint64_t _state;
  uint64_t _inc;
};

// The process-wide sequence (thread-safe).
void portable_srand(uint64_t seed);
uint32_t portable_rand();

#endif
