// Integer codings: exact bytes of variable-byte words, edges of both widths,
// packed bit arrays with their spill bit, log2n, value order.
#include "searchthing/codes.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "searchthing/st_types.h"

namespace {

std::vector<unsigned char> vbe32(uint32_t v) {
  unsigned char b[8];
  int n = st_encode_to_vbe(b, v);
  return std::vector<unsigned char>(b, b + n);
}

std::vector<unsigned char> vbe64(uint64_t v) {
  unsigned char b[16];
  int n = st_encode_to_vbe_ll(b, v);
  return std::vector<unsigned char>(b, b + n);
}

using Bytes = std::vector<unsigned char>;

TEST(Codes, Vbe32ExactBytesAndRoundTrip) {
  struct Row {
    uint32_t value;
    Bytes bytes;
  } rows[] = {
      {0, {0x00}},
      {1, {0x01}},
      {127, {0x7F}},
      {128, {0x80, 0x01}},
      {300, {0xAC, 0x02}},
      {2047, {0xFF, 0x0F}},
      {16383, {0xFF, 0x7F}},
      {16384, {0x80, 0x80, 0x01}},
      {(1u << 28) - 1, {0xFF, 0xFF, 0xFF, 0x7F}},
      {1u << 28, {0x80, 0x80, 0x80, 0x80, 0x01}},
      {0xFFFFFFFFu, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.value);
    EXPECT_EQ(vbe32(r.value), r.bytes);
    uint32_t back = 0;
    EXPECT_EQ(st_decode_from_vbe(&back, r.bytes.data()), (int)r.bytes.size());
    EXPECT_EQ(back, r.value);
    EXPECT_EQ(st_decode_from_vbe_safe(&back, r.bytes.data(), r.bytes.size()), (int)r.bytes.size());
    EXPECT_EQ(back, r.value);
    Bytes padded = r.bytes;
    padded.resize(9, 0);
    EXPECT_EQ(st_skip_vbe_word(padded.data()), (int)r.bytes.size());
    EXPECT_EQ(st_skip_vbe_word2(padded.data()), (int)r.bytes.size());
  }
}

TEST(Codes, Vbe64NinthByteCarriesEightBits) {
  const uint64_t cases[] = {0, 127, 128, 0xFFFFFFFFull, (1ull << 56) - 1, 1ull << 56, 1ull << 63, ~0ull};
  const size_t lengths[] = {1, 1, 2, 5, 8, 9, 9, 9};
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    SCOPED_TRACE(cases[i]);
    Bytes b = vbe64(cases[i]);
    EXPECT_EQ(b.size(), lengths[i]);
    uint64_t back = 0;
    EXPECT_EQ(st_decode_from_vbe_ll(&back, b.data()), (int)b.size());
    EXPECT_EQ(back, cases[i]);
    b.resize(9, 0);
    EXPECT_EQ(st_skip_vbe_word(b.data()), (int)lengths[i]);
    EXPECT_EQ(st_skip_vbe_word2(b.data()), (int)lengths[i]);
  }
  EXPECT_EQ(vbe64(~0ull), Bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(Codes, SafeDecodeRejectsCutAndOverlongWords) {
  const unsigned char cut[] = {0x80, 0x80};
  const unsigned char overlong[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x01};
  const unsigned char too_wide[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x10};
  uint32_t v;
  EXPECT_EQ(st_decode_from_vbe_safe(&v, cut, sizeof cut), 0);
  EXPECT_EQ(st_decode_from_vbe_safe(&v, overlong, sizeof overlong), 0);
  EXPECT_EQ(st_decode_from_vbe_safe(&v, too_wide, sizeof too_wide), 0);
  EXPECT_EQ(st_decode_from_vbe_safe(&v, cut, 0), 0);
}

TEST(Codes, PackedBitsLowBitFirstEveryWidth) {
  unsigned char a[4] = {0, 0, 0, 0};
  encode_to_byte_str(a, 5, 0, 3);  // bits 0..2 = 101
  encode_to_byte_str(a, 7, 1, 3);  // bits 3..5 = 111
  encode_to_byte_str(a, 6, 2, 3);  // bits 6..8 = 011 (low first)
  EXPECT_EQ(a[0], 0xBD);
  EXPECT_EQ(a[1], 0x01);
  std::mt19937 rng(7);
  for (uint32_t nbits = 1; nbits <= 32; ++nbits) {
    SCOPED_TRACE(nbits);
    const uint32_t n = 100;
    std::vector<unsigned char> arr(((n >> 3) + 1) * nbits, 0xAA);
    std::vector<uint32_t> vals(n);
    for (uint32_t i = 0; i < n; ++i) {
      vals[i] = nbits == 32 ? rng() : rng() & ((1u << nbits) - 1);
      encode_to_byte_str(arr.data(), vals[i], i, nbits);
    }
    for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(decode_from_byte_str(arr.data(), i, nbits), vals[i]);
  }
}

TEST(Codes, StoreSpillsIntoNextSlot) {
  unsigned char a[2] = {0, 0};
  encode_to_byte_str(a, 1, 4, 1);
  encode_to_byte_str(a, 1, 3, 1);  // a later store at a lower index clears bit 4
  EXPECT_EQ(decode_from_byte_str(a, 3, 1), 1u);
  EXPECT_EQ(decode_from_byte_str(a, 4, 1), 0u);
  encode_to_byte_str(a, 1, 7, 1);  // the spill of the last bit of a byte lands in the next
  encode_to_byte_str(a, 1, 8, 1);
  EXPECT_EQ(a[1] & 1, 1);
}

TEST(Codes, Log2n) {
  struct {
    uint64_t v;
    uint32_t bits;
  } rows[] = {{0, 1}, {1, 1}, {2, 2}, {3, 2}, {4, 3}, {255, 8}, {256, 9}, {0xFFFFFFFFull, 32},
              {1ull << 32, 1}, {(1ull << 32) + 5, 3}};
  for (auto& r : rows) EXPECT_EQ(log2n(r.v), r.bits) << r.v;
}

TEST(Codes, ValueOrderAndGather) {
  st_tsval v[] = {{5, 1, 0, 0, 0, 0}, {9, 2, 0, 0, 0, 0}, {5, 3, 0, 0, 0, 0}, {9, 2, 1, 0, 0, 0}, {-1, 7, 0, 0, 0, 0}};
  st_tsval_qsort(v, 5);
  const int32_t times[] = {9, 9, 5, 5, -1};
  const uint32_t addrs[] = {2, 2, 3, 1, 7};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(v[i].time, times[i]);
    EXPECT_EQ(v[i].address, addrs[i]);
  }
  EXPECT_EQ(st_tsval_gather(v, 5), 4u);
  EXPECT_EQ(v[1].address, 3u);
  unsigned char a[8], b[8];
  st_put_be32(a, (uint32_t)-5);
  st_put_be32(a + 4, 1);
  st_put_be32(b, 3);
  st_put_be32(b + 4, 1);
  EXPECT_GT(st_ntsval_compare(a, b), 0);  // the older pair sorts after
  EXPECT_LT(st_ntsval_compare(b, a), 0);
  EXPECT_EQ(st_ntsval_compare(a, a), 0);
}

}  // namespace
