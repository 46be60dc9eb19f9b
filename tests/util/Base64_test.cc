#include "util/Base64.h"

#include <gtest/gtest.h>

#include "util/PortableRand.h"
#include "util/StrSegment.h"

namespace {

TEST(Base64, Rfc4648Vectors) {
  const struct {
    const char* plain;
    const char* encoded;
  } cases[] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
               {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (const auto& c : cases) {
    EXPECT_EQ(Base64::encode(c.plain, strlen(c.plain)), c.encoded);
    Str out;
    ASSERT_TRUE(Base64::decode(c.encoded, out));
    EXPECT_EQ(out, c.plain);
  }
  EXPECT_EQ(Base64::encode("\xfb\xff", 2), "+/8=");
}

TEST(Base64, DecodeStopsAtPadAndRejectsBadBytes) {
  Str out;
  EXPECT_TRUE(Base64::decode("Zm8=AAAA", out));  // nothing after the first "=" is read
  EXPECT_EQ(out, "fo");
  out.clear();
  EXPECT_TRUE(Base64::decode("Zm8=!!", out));
  EXPECT_EQ(out, "fo");
  for (const char* bad : {"Zm 8", "Zm8\n", "Zm-8", "Z\x80"}) {
    Str o;
    EXPECT_FALSE(Base64::decode(bad, o)) << bad;
  }
  out = "keep:";
  ASSERT_TRUE(Base64::decode("YQ", out));  // unpadded input still decodes
  EXPECT_EQ(out, "keep:a");
}

TEST(Base64, RandomBytesRoundTrip) {
  PortableRand rng(3);
  for (int len = 0; len < 200; ++len) {
    Str bytes(static_cast<size_t>(len), '\0');
    for (char& c : bytes) c = static_cast<char>(rng.next());
    const Str enc = Base64::encode(bytes.data(), bytes.size());
    EXPECT_EQ(enc.size(), (bytes.size() + 2) / 3 * 4);
    Str dec;
    ASSERT_TRUE(Base64::decode(enc, dec));
    EXPECT_EQ(dec, bytes);
  }
}

TEST(Base64, FixedWidthNumbers) {
  char buf[12] = {};
  toBase64(63, buf, 2);
  EXPECT_STREQ(buf, "A/");
  toBase64(UINT64_MAX, buf, 11);
  EXPECT_STREQ(buf, "P//////////");  // 64 bits: the top digit holds 4 bits
  uint64_t n = 0;
  ASSERT_TRUE(fromBase64(&n, "P//////////", 11));
  EXPECT_EQ(n, UINT64_MAX);
  toBase64(64 * 5 + 7, buf, 1);  // too few digits keep the low ones
  ASSERT_TRUE(fromBase64(&n, buf, 1));
  EXPECT_EQ(n, 7u);
  n = 99;
  EXPECT_FALSE(fromBase64(&n, "AB=C", 4));
  EXPECT_EQ(n, 99u);
}

}  // namespace
