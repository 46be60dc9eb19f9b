#include "util/WildcardMatcher.h"

#include <gtest/gtest.h>

#include <string>

#include "util/PortableRand.h"
#include "util/WildcardList.h"

namespace {

TEST(WildcardMatcher, MatchTable) {
  const struct {
    const char* pattern;
    const char* text;
    bool match;
  } cases[] = {
      {"", "", true},        {"", "a", false},         {"abc", "abc", true},
      {"abc", "abcd", false}, {"abc", "ABC", false},   {"*", "", true},
      {"**", "anything", true}, {"a*", "a", true},      {"a*", "ba", false},
      {"*a", "ba", true},    {"*a", "ab", false},      {"*b*", "abc", true},
      {"*b*", "ac", false},  {"a*b*c", "abc", true},    {"a*b*c", "aXbYc", true},
      {"a*b*c", "acb", false}, {"a*c", "ac", true},     {"ab*ab", "ab", false},  // pieces may not overlap
      {"ab*ab", "abab", true}, {"a*a", "a", false},     {"*ab*ab*", "xabyab", true},
      {"a**b", "ab", true},  {"*x*y", "xyxy", true},    {"*x*y", "yxx", false},
      {"err* *failed", "error: open failed", true}, {"*.log", "a.log.1", false},
  };
  for (const auto& c : cases) {
    const WildcardMatcher m(c.pattern);
    EXPECT_EQ(m.isMatch(c.text), c.match) << c.pattern << " ~ " << c.text;
    EXPECT_EQ(m.isMatch(StrSegment(c.text)), c.match) << c.pattern << " ~ " << c.text;
  }
}

TEST(WildcardMatcher, TypesAndParts) {
  const struct {
    const char* pattern;
    uint32_t type;
    bool hardStart, hardEnd;
    const char* prefix;
    size_t pieces;
  } cases[] = {
      {"", 4, true, true, "", 0},
      {"word", 4, true, true, "word", 0},
      {"a*", 3, true, false, "a", 1},
      {"*a", 3, false, true, "", 1},
      {"a*b*c", 3, true, true, "a", 3},
      {"**x**", 3, false, false, "", 1},
      {"*", 0xFFFFFFFFu, false, false, "", 0},
      {"***", 0xFFFFFFFFu, false, false, "", 0},
  };
  for (const auto& c : cases) {
    const WildcardMatcher m(c.pattern);
    EXPECT_EQ(m.getMatcherType(), c.type) << c.pattern;
    EXPECT_EQ(m.getHardStart(), c.hardStart) << c.pattern;
    EXPECT_EQ(m.getHardEnd(), c.hardEnd) << c.pattern;
    EXPECT_EQ(m.getPatternPrefix(), c.prefix) << c.pattern;
    EXPECT_EQ(m.getPieces().size(), c.pieces) << c.pattern;
  }
  EXPECT_EQ(WildcardMatcher("word").getWord(), "word");
  EXPECT_EQ(WildcardMatcher("*mid*").getWord(), "mid");
}

TEST(WildcardMatcher, SpansAndStarCaptures) {
  const struct {
    const char* pattern;
    const char* text;
    size_t from, to;
    std::vector<std::string> stars;
  } cases[] = {
      {"a*c", "abbc", 0, 4, {"bb"}},
      {"*b*", "aabcc", 2, 3, {"aa", "cc"}},
      {"*b", "aab", 2, 3, {"aa"}},
      {"a*", "abc", 0, 1, {"bc"}},
      {"*x*y*", "1x2y3", 1, 4, {"1", "2", "3"}},
      {"x*x", "xx", 0, 2, {""}},
      {"*", "all", 0, 3, {"all"}},
      {"same", "same", 0, 4, {}},
  };
  for (const auto& c : cases) {
    const WildcardMatcher m(c.pattern);
    size_t from = 99, to = 99;
    ASSERT_TRUE(m.isMatch(StrSegment(c.text), &from, &to)) << c.pattern;
    EXPECT_EQ(from, c.from) << c.pattern;
    EXPECT_EQ(to, c.to) << c.pattern;
    std::vector<StrSegment> stars{StrSegment("stale")};
    ASSERT_TRUE(m.isMatch(StrSegment(c.text), stars));
    std::vector<std::string> got;
    for (const auto& s : stars) got.emplace_back(s.data(), s.size());
    EXPECT_EQ(got, c.stars) << c.pattern;
  }
}

// A plain backtracking matcher to hold the piece algorithm against.
bool referenceMatch(const char* p, const char* t) {
  if (*p == '\0') return *t == '\0';
  if (*p == '*') return referenceMatch(p + 1, t) || (*t && referenceMatch(p, t + 1));
  return *t == *p && referenceMatch(p + 1, t + 1);
}

TEST(WildcardMatcher, AgreesWithBacktrackingOnRandomInputs) {
  PortableRand rng(11);
  for (int i = 0; i < 20000; ++i) {
    std::string pat(rng.nextBelow(7), ' '), text(rng.nextBelow(9), ' ');
    for (char& c : pat) c = "ab*"[rng.nextBelow(3)];
    for (char& c : text) c = "ab"[rng.nextBelow(2)];
    EXPECT_EQ(WildcardMatcher(pat).isMatch(text.c_str()), referenceMatch(pat.c_str(), text.c_str()))
        << "'" << pat << "' ~ '" << text << "'";
  }
}

TEST(WildcardMatcher, PieceLimitLeavesTheEndSoft) {
  std::string pat;
  for (size_t i = 0; i < WildcardMatcher::kMaxPieces + 10; ++i) pat += "x*";
  pat += "END";
  const WildcardMatcher m(pat);
  EXPECT_EQ(m.getPieces().size(), WildcardMatcher::kMaxPieces);
  EXPECT_FALSE(m.getHardEnd());
  EXPECT_TRUE(m.isMatch(std::string(WildcardMatcher::kMaxPieces, 'x').c_str()));
}

TEST(WildcardList, AnyPatternHits) {
  WildcardList list;
  EXPECT_FALSE(list.isHit("x"));
  list.add("*.log");
  list.add("core");
  EXPECT_TRUE(list.isHit("a.log"));
  EXPECT_TRUE(list.isHit(StrSegment("core")));
  EXPECT_FALSE(list.isHit("core.1"));
  EXPECT_EQ(list.size(), 2u);
}

}  // namespace
