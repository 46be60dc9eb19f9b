#include "util/PortableRand.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(PortableRand, MatchesTheReferenceSequence) {
  // Seed 42, stream 54: the published first outputs of the generator.
  PortableRand r(42, 54);
  const uint32_t expected[] = {0xa15c02b7, 0x7b47f409, 0xba1d3330, 0x83d2f293, 0xbfa4784b, 0xcbed606e};
  for (uint32_t e : expected) EXPECT_EQ(r.next(), e);
}

TEST(PortableRand, DefaultStreamIsPinned) {
  // These values are part of the contract: stored samples depend on them.
  PortableRand zero;
  EXPECT_EQ(zero.next(), 0xe823a24eu);
  EXPECT_EQ(zero.next(), 0x7a7ecbd9u);
  EXPECT_EQ(zero.next(), 0x89fd6c06u);
  PortableRand r(12345);
  EXPECT_EQ(r.next(), 0x5421840fu);
  // Reseeding restarts the sequence.
  r.seed_with(0);
  EXPECT_EQ(r.next(), 0xe823a24eu);
  portable_srand(12345);
  EXPECT_EQ(portable_rand(), 0x5421840fu);
}

TEST(PortableRand, BoundedValuesStayInRangeAndCoverIt) {
  PortableRand r(9);
  std::vector<int> seen(7, 0);
  for (int i = 0; i < 7000; ++i) {
    const uint32_t v = r.nextBelow(7);
    ASSERT_LT(v, 7u);
    ++seen[v];
  }
  for (int count : seen) EXPECT_GT(count, 800);  // ~1000 each
  EXPECT_EQ(r.nextBelow(1), 0u);
}

}  // namespace
