// Rng: the random source of one generated file.
//
// A thin layer over PortableRand (PCG32) with the draws the log generator
// needs: uniform reals, bounded integers, weighted choices and skewed picks.
// The same seed gives the same sequence on every build, which is what makes
// the generator's output byte-for-byte reproducible. Each Rng belongs to one
// file stream and one thread.
#pragma once

#include <cmath>
#include <cstdint>

#include "util/PortableRand.h"

class Rng {
 public:
  explicit Rng(uint64_t seed) : _rand(seed) {}

  // Mixes several numbers into one well-spread seed (splitmix64 finaliser),
  // so that streams seeded from (seed, host, source) do not overlap.
  static uint64_t mix(uint64_t a, uint64_t b) {
    uint64_t z = a + 0x9E3779B97F4A7C15ULL * (b + 1);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }

  uint32_t next() { return _rand.next(); }

  // Uniform in [0, n). REQUIRES: n > 0.
  uint32_t below(uint32_t n) { return _rand.nextBelow(n); }

  // Uniform in [lo, hi]. REQUIRES: lo <= hi.
  int64_t range(int64_t lo, int64_t hi) {
    return lo + static_cast<int64_t>(below(static_cast<uint32_t>(hi - lo + 1)));
  }

  // Uniform in [0, 1), 53 bits.
  double uniform() {
    const uint64_t hi = next() >> 5, lo = next() >> 6;
    return static_cast<double>((hi << 26) | lo) * (1.0 / 9007199254740992.0);
  }

  bool chance(double p) { return uniform() < p; }

  // An index in [0, n) skewed toward 0: a few items are picked very often
  // and many rarely, as with client addresses or popular pages.
  // REQUIRES: n > 0.
  uint32_t skewed(uint32_t n) {
    const double u = uniform();
    const uint32_t i = static_cast<uint32_t>(u * u * u * n);
    return i < n ? i : n - 1;
  }

  // A log-normal draw with the given median, for durations and sizes.
  double lognormal(double median, double sigma) {
    // Box-Muller; one normal value per call keeps the sequence simple.
    double u1 = uniform();
    if (u1 < 1e-12) u1 = 1e-12;
    const double z = std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * uniform());
    return median * std::exp(sigma * z);
  }

  // An index picked by integer weights. REQUIRES: weights sum above 0.
  template <typename W, unsigned long N>
  uint32_t weighted(const W (&weights)[N]) {
    uint32_t total = 0;
    for (auto w : weights) total += w;
    uint32_t r = below(total);
    for (uint32_t i = 0; i < N; ++i) {
      if (r < static_cast<uint32_t>(weights[i])) return i;
      r -= weights[i];
    }
    return N - 1;
  }

  // A uniformly chosen element of a fixed array.
  template <typename T, unsigned long N>
  const T& pick(const T (&items)[N]) {
    return items[below(N)];
  }

 private:
  PortableRand _rand;
};
