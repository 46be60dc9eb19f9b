#include "util/StrSegment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "util/CharacterClass.h"
#include "util/PortableRand.h"

namespace {

int sign(int v) { return (v > 0) - (v < 0); }

TEST(StrSegment, CompareIsUnsignedBytesThenLength) {
  const struct {
    StrSegment a, b;
    int expected;
  } cases[] = {
      {"abc", "abd", -1},
      {"abc", "abc", 0},
      {"ab", "abc", -1},
      {"abc", "ab", 1},
      {"", "", 0},
      {"", "a", -1},
      {"\x80", "\x7f", 1},  // unsigned: 0x80 sorts after 0x7f
      {"a\xff", "a\x01", 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sign(c.a.compare(c.b)), c.expected) << c.a.toStr() << " vs " << c.b.toStr();
    EXPECT_EQ(c.a < c.b, c.expected < 0);
    EXPECT_EQ(c.a == c.b, c.expected == 0);
  }
  // The length difference is returned, taken as 32 bits.
  EXPECT_EQ(StrSegment("abcde").compare("ab"), 3);
  // Segments of different text with equal bytes are equal; a null segment is empty.
  const std::string x("same"), y("same");
  EXPECT_TRUE(StrSegment(x) == StrSegment(y));
  EXPECT_TRUE(StrSegment() == StrSegment(""));
  EXPECT_TRUE(StrSegment(static_cast<const char*>(nullptr)).empty());
}

// The find family must agree with std::string on every input; random texts
// over a small alphabet hit the boundary cases (pos at/after the end, empty
// needles, repeated characters).
TEST(StrSegment, FindFamilyAgreesWithStdString) {
  PortableRand rng(7);
  auto randomText = [&](size_t maxLen) {
    std::string s(rng.nextBelow(static_cast<uint32_t>(maxLen + 1)), ' ');
    for (char& c : s) c = "abc"[rng.nextBelow(3)];
    return s;
  };
  for (int iter = 0; iter < 3000; ++iter) {
    const std::string hay = randomText(12);
    const std::string needle = randomText(3);
    const size_t pos = rng.nextBelow(16);
    const size_t rpos = rng.nextBelow(4) == 0 ? std::string::npos : pos;
    const StrSegment seg(hay), nd(needle);
    const char ch = "abcd"[rng.nextBelow(4)];
    SCOPED_TRACE("hay=" + hay + " needle=" + needle + " pos=" + std::to_string(pos));
    EXPECT_EQ(seg.find(nd, pos), hay.find(needle, pos));
    EXPECT_EQ(seg.find(ch, pos), hay.find(ch, pos));
    EXPECT_EQ(seg.rfind(nd, rpos), hay.rfind(needle, rpos));
    EXPECT_EQ(seg.rfind(ch, rpos), hay.rfind(ch, rpos));
    EXPECT_EQ(seg.find_first_of(nd, pos), hay.find_first_of(needle, pos));
    EXPECT_EQ(seg.find_first_not_of(nd, pos), hay.find_first_not_of(needle, pos));
    EXPECT_EQ(seg.find_last_of(nd, rpos), hay.find_last_of(needle, rpos));
    EXPECT_EQ(seg.find_last_not_of(nd, rpos), hay.find_last_not_of(needle, rpos));
    EXPECT_EQ(seg.find_first_not_of(ch, pos), hay.find_first_not_of(ch, pos));
    EXPECT_EQ(seg.find_last_not_of(ch, rpos), hay.find_last_not_of(ch, rpos));
    EXPECT_EQ(seg.find_first_of(CharacterClass(needle.c_str()), pos), hay.find_first_of(needle, pos));
    EXPECT_EQ(seg.count_char(ch), static_cast<size_t>(std::count(hay.begin(), hay.end(), ch)));
  }
}

TEST(StrSegment, SubstrCopyAtBounds) {
  const StrSegment s("hello");
  EXPECT_TRUE(s.substr(5).empty());
  EXPECT_THROW(s.substr(6), std::out_of_range);
  EXPECT_THROW(s.at(5), std::out_of_range);
  char buf[8] = {};
  EXPECT_EQ(s.copy(buf, 10, 2), 3u);  // clipped to the end
  EXPECT_STREQ(buf, "llo");
  EXPECT_THROW(s.copy(buf, 1, 6), std::out_of_range);
  StrSegment m("abc");
  m.remove_prefix(99);
  EXPECT_TRUE(m.empty());
}

TEST(StrSegment, TrimPrefixAndConversionsDoNotReadPastTheEnd) {
  // The segment is a window into a longer buffer: nothing past its end may
  // leak into conversions or tests.
  const char buf[] = "  42  99";
  const StrSegment num(buf, 4);  // "  42"
  EXPECT_EQ(num.toLong(-1), 42);
  EXPECT_EQ(StrSegment(buf, 6).toLong(-1), -1);  // "  42  " has trailing text
  EXPECT_EQ(StrSegment(buf, 6).trim(), StrSegment("42"));
  EXPECT_EQ(StrSegment(buf, 6).trim(CharacterClass::whitespace(), false, true), StrSegment("  42"));
  double d;
  EXPECT_TRUE(StrSegment("3.5e", 3).tryToDouble(d));
  EXPECT_EQ(d, 3.5);
  bool b;
  EXPECT_TRUE(StrSegment("yesno", 3).tryToBool(b));
  EXPECT_TRUE(b);
  EXPECT_TRUE(StrSegment("abc").startswith("ab"));
  EXPECT_FALSE(StrSegment("abc", 1).startswith("ab"));
  EXPECT_TRUE(StrSegment("abcd", 3).endswith("bc"));
  char* dup = StrSegment("xyz", 2).strdup();
  EXPECT_STREQ(dup, "xy");
  std::free(dup);
  char* cp = StrSegment("xyz", 1).copystr();
  EXPECT_STREQ(cp, "x");
  delete[] cp;
}

TEST(MemPrefix, StartsAndEndsWith) {
  EXPECT_FALSE(mem_startswith("ab", 2, "abc", 3));
  EXPECT_TRUE(mem_startswith("abc", 3, "", 0));
  EXPECT_FALSE(mem_endswith("c", 1, "bc", 2));
  EXPECT_TRUE(mem_endswith("a\0c", 3, "\0c", 2));
}

TEST(CharacterClass, MembershipAndComplement) {
  CharacterClass cc("a\x80\xff");
  EXPECT_TRUE(cc.contains('a'));
  EXPECT_TRUE(cc.contains('\x80'));
  EXPECT_TRUE(cc.contains('\xff'));
  EXPECT_FALSE(cc.contains('b'));
  EXPECT_FALSE(cc.contains('\0'));
  const CharacterClass notDigits("0123456789", false);
  for (int c = 0; c < 256; ++c)
    EXPECT_EQ(notDigits.contains(static_cast<unsigned char>(c)), !(c >= '0' && c <= '9')) << c;
  CharacterClass all;
  all.setAll(true);
  all.set('x', false);
  all.set_multi("\0y", 2, false);  // a NUL inside the list counts
  EXPECT_FALSE(all.contains('x'));
  EXPECT_FALSE(all.contains('\0'));
  EXPECT_FALSE(all.contains('y'));
  EXPECT_TRUE(all.contains('z'));
}

TEST(CharacterClass, FindAndReverseFind) {
  const CharacterClass ws = CharacterClass::whitespace();
  const char* t = "  ab c  ";
  const size_t n = 8;
  EXPECT_EQ(cclass_find(ws, t, n, 0, false), 2u);
  EXPECT_EQ(cclass_find(ws, t, n, 2, true), 4u);
  EXPECT_EQ(cclass_find(ws, t, n, 8, true), CharacterClass::npos);
  EXPECT_EQ(cclass_rfind(ws, t, n, CharacterClass::npos, false), 5u);
  EXPECT_EQ(cclass_rfind(ws, t, n, 4, true), 4u);
  EXPECT_EQ(cclass_rfind(ws, t, n, 3, true), 1u);
  EXPECT_EQ(cclass_rfind(ws, "ab", 2, 1, true), CharacterClass::npos);
  EXPECT_EQ(cclass_rfind(ws, "", 0, 0, true), CharacterClass::npos);
}

}  // namespace
