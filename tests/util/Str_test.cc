#include "util/Str.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "util/Hash.h"
#include "util/StrSegment.h"

namespace {

struct IntCase {
  const char* text;
  bool ok;
  long long value;
};

TEST(StrConversion, IntegersAreStrictBase10) {
  const IntCase cases[] = {
      {"12", true, 12},
      {" 12", true, 12},  // leading blanks pass the C library
      {"12 ", false, 0},  // trailing text does not
      {"-7", true, -7},
      {"+7", true, 7},
      {"0x10", false, 0},
      {"010", true, 10},  // base 10, not octal
      {"", false, 0},
      {" ", false, 0},
      {"abc", false, 0},
      {"9223372036854775807", true, LLONG_MAX},
      {"9223372036854775808", false, 0},  // overflow
      {"-9223372036854775809", false, 0},
  };
  for (const auto& c : cases) {
    long l = -1;
    long long ll = -1;
    EXPECT_EQ(Str(c.text).tryToLong(l), c.ok) << '"' << c.text << '"';
    EXPECT_EQ(Str(c.text).tryToLongLong(ll), c.ok) << '"' << c.text << '"';
    if (c.ok) {
      EXPECT_EQ(l, c.value) << c.text;
      EXPECT_EQ(ll, c.value) << c.text;
    }
    EXPECT_EQ(Str(c.text).toLong(42), c.ok ? c.value : 42) << c.text;
  }
  // An embedded NUL is text left over.
  long l;
  EXPECT_FALSE(Str("12\0" "3", 4).tryToLong(l));
  unsigned long ul;
  EXPECT_TRUE(Str("18446744073709551615").tryToUnsignedLong(ul));
  EXPECT_EQ(ul, ULONG_MAX);
  EXPECT_FALSE(Str("18446744073709551616").tryToUnsignedLong(ul));
  EXPECT_EQ(Str("x").toUnsignedLong(5), 5u);
  EXPECT_EQ(Str("x").toLongLong(-5), -5);
}

TEST(StrConversion, DoubleWantsDigitOrMinusFirstAndWholeText) {
  const struct {
    const char* text;
    bool ok;
    double value;
  } cases[] = {
      {"1e3", true, 1000.0}, {"-2.5", true, -2.5}, {"0.125", true, 0.125},
      {"+3", false, 0},      {".5", false, 0},     {" 3", false, 0},
      {"3 ", false, 0},      {"", false, 0},       {"1e999", false, 0},  // ERANGE
      {"3x", false, 0},      {"-", false, 0},
  };
  for (const auto& c : cases) {
    double d = -1;
    EXPECT_EQ(Str(c.text).tryToDouble(d), c.ok) << '"' << c.text << '"';
    if (c.ok) {
      EXPECT_DOUBLE_EQ(d, c.value);
    }
    EXPECT_DOUBLE_EQ(Str(c.text).toDouble(7.5), c.ok ? c.value : 7.5) << c.text;
  }
}

TEST(StrConversion, TruthWordsAnyCaseAndTwoDefaults) {
  const struct {
    const char* text;
    int parsed;  // -1: not a truth word
  } cases[] = {{"true", 1}, {"TRUE", 1}, {"Yes", 1},   {"1", 1},     {"false", 0}, {"No", 0},
               {"0", 0},    {"", -1},    {"maybe", -1}, {"on", -1}, {"10", -1},   {"yes ", -1}};
  for (const auto& c : cases) {
    bool b = false;
    EXPECT_EQ(Str(c.text).tryToBool(b), c.parsed >= 0) << c.text;
    if (c.parsed >= 0) {
      EXPECT_EQ(b, c.parsed == 1) << c.text;
    }
  }
  EXPECT_TRUE(Str("").toBool(true, false));
  EXPECT_FALSE(Str("").toBool(false, true));
  EXPECT_FALSE(Str("maybe").toBool(true, false));
  EXPECT_TRUE(Str("maybe").toBool(false, true));
  EXPECT_FALSE(Str("no").toBool(true, true));
}

TEST(StrFormat, ShortLongAndSelfReferencing) {
  Str s("old");
  EXPECT_EQ(s.format("%d-%s", 5, "x"), "5-x");
  // Past the 256-byte stack buffer, and exactly at its edge.
  const std::string big(1000, 'z');
  EXPECT_EQ(Str().format("<%s>", big.c_str()), "<" + big + ">");
  const std::string edge(255, 'e');
  EXPECT_EQ(Str().format("%s", edge.c_str()), edge);
  const std::string over(256, 'o');
  EXPECT_EQ(Str().format("%s", over.c_str()), over);
  // Arguments pointing into the string being formatted.
  Str self("abc");
  self.format("%s%s", self.c_str(), self.c_str());
  EXPECT_EQ(self, "abcabc");
  self.appendFormat("-%s", big.c_str());
  EXPECT_EQ(self.size(), 7u + big.size());
  EXPECT_EQ(Str::fromFormat("%05.1f", 2.25), "002.2");
}

TEST(StrFormat, NumberAppendersUseFullRange) {
  Str s;
  s.append_longlong(LLONG_MIN).append_unsignedlonglong(ULLONG_MAX);
  EXPECT_EQ(s, "-922337203685477580818446744073709551615");
}

TEST(StrText, TrimAndClassTests) {
  EXPECT_EQ(Str(" \t a b \n").trim(), "a b");
  EXPECT_EQ(Str("  a  ").trim(CharacterClass::whitespace(), false, true), "  a");
  EXPECT_EQ(Str("    ").trim(), "");
  const CharacterClass digits("0123456789");
  Str t("12ab34");
  EXPECT_EQ(t.trimInPlace(digits), "ab");
  EXPECT_TRUE(Str("9x").startswith(digits));
  EXPECT_FALSE(Str("x9").startswith(digits));
  EXPECT_FALSE(Str("").endswith(digits));
  EXPECT_FALSE(Str("ab").startswith("abc"));
  EXPECT_TRUE(Str("a\x80").endswith(CharacterClass("\x80")));  // high bytes
  EXPECT_EQ(Str("a,b,,c").count_char(','), 3u);
}

TEST(StrText, HeapCopiesKeepEmbeddedBytes) {
  const Str s("a\0b", 3);
  char* m = s.strdup();
  EXPECT_EQ(std::memcmp(m, "a\0b\0", 4), 0);
  std::free(m);
}

TEST(StrText, ReplaceAllAndLowercase) {
  const struct {
    const char* text;
    const char* from;
    const char* to;
    const char* expected;
    size_t count;
  } cases[] = {
      {"a.b.c", ".", "::", "a::b::c", 2},
      {"aaaa", "aa", "a", "aa", 2},  // left to right, not overlapping
      {"abc", "", "x", "abc", 0},
      {"abc", "abc", "", "", 1},
      {"xyz", "q", "r", "xyz", 0},
      {"aXa", "a", "aa", "aaXaa", 2},  // replacement is not rescanned
  };
  for (const auto& c : cases) {
    Str s(c.text);
    EXPECT_EQ(replaceAllString(s, c.from, c.to), c.count) << c.text;
    EXPECT_EQ(s, c.expected) << c.text;
  }
  EXPECT_EQ(lowercase("AbC-\xC4"), "abc-\xC4");
}

// Every pairing must resolve unambiguously to our overloads and give a Str.
TEST(StrConcat, EveryPairingGivesStr) {
  const Str s("s");
  const StrSegment g("g");
  const char* c = "c";
  const std::string t("t");
  EXPECT_EQ(s + g + c + 'x' + t, "sgcxt");
  EXPECT_EQ(g + s + g + c, "gsgc");
  EXPECT_EQ(Str(c + s) + Str(c + g) + Str('x' + s) + Str('x' + g) + Str(g + 'x'), "cscgxsxggx");
  EXPECT_EQ(std::string("u") + s + (t + Str("v")), "ustv");
  static_assert(std::is_same_v<decltype(Str() + std::string()), Str>);
  static_assert(std::is_same_v<decltype(std::string() + s), Str>);
  static_assert(std::is_same_v<decltype(t + s), Str>);
  static_assert(std::is_same_v<decltype(c + g), Str>);
  static_assert(std::is_same_v<decltype(g + g), Str>);
}

TEST(Hash, PinnedValuesAndSignedBytes) {
  // djb2 of "" is its seed; of "a": 5381*33 + 97.
  EXPECT_EQ(djb2_hash(""), 5381u);
  EXPECT_EQ(djb2_hash("a"), 5381u * 33 + 97);
  EXPECT_EQ(std_hash("ab"), 97u * 5 + 98);
  // A byte >= 0x80 counts as a negative signed char.
  EXPECT_EQ(djb2_hash("\xff"), 5381u * 33 - 1);
  EXPECT_EQ(std_hash("\x80"), static_cast<uint64_t>(-128));
  EXPECT_EQ(djb2_hash("hello world"), djb2_hash("hello world!", 11));
  EXPECT_EQ(std_hash("hello"), std_hash("hello", 5));
}

}  // namespace
