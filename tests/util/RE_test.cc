#include "util/RE.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

TEST(RE, FullMatchMustCoverTheWholeTextAndBacktracksToDoSo) {
  // The first alternative matches a prefix; a full match has to try the
  // second.
  EXPECT_TRUE(RE("a|ab").FullMatch("ab"));
  EXPECT_TRUE(RE("a|ab").PartialMatch("xab"));
  EXPECT_FALSE(RE("a|ab").FullMatch("abc"));
  EXPECT_FALSE(RE("b").FullMatch("ab"));
  EXPECT_TRUE(RE("").FullMatch(""));
  EXPECT_TRUE(RE("x*").FullMatch(StringPiece()));  // null subject is empty text
  // A pattern alternation at top level must not escape the anchoring.
  EXPECT_FALSE(RE("a|b").FullMatch("ab"));
}

TEST(RE, TypedCaptures) {
  std::string s;
  int i = 0;
  double d = 0;
  StringPiece sp;
  ASSERT_TRUE(RE("(\\w+):(-?\\d+):([\\d.e+-]+):(.*)").FullMatch("host:-42:2.5e3:rest", &s, &i, &d, &sp));
  EXPECT_EQ(s, "host");
  EXPECT_EQ(i, -42);
  EXPECT_DOUBLE_EQ(d, 2500.0);
  EXPECT_EQ(sp.as_string(), "rest");

  unsigned long long big = 0;
  EXPECT_TRUE(RE("(\\d+)").FullMatch("18446744073709551615", &big));
  EXPECT_EQ(big, ULLONG_MAX);
  short sh = 0;
  char c = 0;
  EXPECT_TRUE(RE("(.)(\\d+)").FullMatch("x123", &c, &sh));
  EXPECT_EQ(c, 'x');
  EXPECT_EQ(sh, 123);
  // nullptr skips a group.
  EXPECT_TRUE(RE("(a)(b)").FullMatch("ab", nullptr, &s));
  EXPECT_EQ(s, "b");
}

TEST(RE, CaptureConversionFailuresFailTheMatch) {
  int i = 7;
  short sh = 0;
  unsigned u = 0;
  double d = 0;
  // Overflow of the destination type.
  EXPECT_FALSE(RE("(\\d+)").FullMatch("2147483648", &i));
  EXPECT_FALSE(RE("(\\d+)").FullMatch("40000", &sh));
  // A sign on an unsigned destination, a leading blank, trailing junk.
  EXPECT_FALSE(RE("(.*)").FullMatch("-1", &u));
  EXPECT_FALSE(RE("(.*)").FullMatch(" 5", &i));
  EXPECT_FALSE(RE("(.*)").FullMatch("5x", &i));
  EXPECT_FALSE(RE("(.*)").FullMatch("1e999", &d));
  // A group that did not take part fails a number but gives "" to a string.
  EXPECT_FALSE(RE("(a)|(b)").FullMatch("a", nullptr, &i));
  std::string s = "old";
  EXPECT_TRUE(RE("(a)|(b)").FullMatch("a", nullptr, &s));
  EXPECT_EQ(s, "");
  // More arguments than groups.
  EXPECT_FALSE(RE("(a)").FullMatch("a", &s, &s));
}

TEST(RE, RadixCaptures) {
  int i = 0;
  EXPECT_TRUE(RE("(.*)").FullMatch("ff", Hex(&i)));
  EXPECT_EQ(i, 255);
  EXPECT_TRUE(RE("(.*)").FullMatch("17", Octal(&i)));
  EXPECT_EQ(i, 15);
  EXPECT_TRUE(RE("(.*)").FullMatch("0x1f", CRadix(&i)));
  EXPECT_EQ(i, 31);
  unsigned char uc = 0;
  EXPECT_FALSE(RE("(.*)").FullMatch("100", Hex(&uc)));
}

TEST(RE, ConsumeAndFindAndConsumeAdvanceTheInput) {
  StringPiece input("k1=v1; k2=v2;k3=v3");
  std::string k, v;
  std::vector<std::string> seen;
  RE pair("(\\w+)=(\\w+)");
  while (pair.FindAndConsume(&input, &k, &v)) seen.push_back(k + "/" + v);
  EXPECT_EQ(seen, (std::vector<std::string>{"k1/v1", "k2/v2", "k3/v3"}));
  EXPECT_TRUE(input.empty());

  StringPiece words("aa bb cc");
  RE word("(\\w+)\\s*");
  EXPECT_TRUE(word.Consume(&words, &k));
  EXPECT_EQ(k, "aa");
  EXPECT_EQ(words.as_string(), "bb cc");
  StringPiece notAtStart(" aa");
  EXPECT_FALSE(RE("\\w+").Consume(&notAtStart));
  EXPECT_EQ(notAtStart.size(), 3u);
}

TEST(RE, DoMatchReportsConsumedBytes) {
  RE re("(\\d+)-");
  int n = 0, consumed = 0;
  RE::Arg a(&n);
  const RE::Arg* args[] = {&a};
  ASSERT_TRUE(re.DoMatch("12-34", RE::ANCHOR_START, &consumed, args, 1));
  EXPECT_EQ(n, 12);
  EXPECT_EQ(consumed, 3);
  EXPECT_FALSE(re.DoMatch("x12-", RE::ANCHOR_START, &consumed, args, 1));
  EXPECT_TRUE(re.DoMatch("12-", RE::ANCHOR_BOTH, &consumed, args, 1));
  EXPECT_FALSE(re.DoMatch("12-3", RE::ANCHOR_BOTH, &consumed, args, 1));
}

TEST(RE, ReplaceAndRewriteStrings) {
  struct Case {
    const char* pattern;
    const char* rewrite;
    const char* text;
    const char* once;      // after Replace
    const char* global;    // after GlobalReplace
    int count;
  } cases[] = {
      {"(\\w+)@(\\w+)", "\\2 at \\1", "a@b c@d", "b at a c@d", "b at a d at c", 2},
      {"b+", "[\\0]", "abbcb", "a[bb]cb", "a[bb]c[b]", 2},
      {"x", "\\\\", "axbx", "a\\bx", "a\\b\\", 2},
      {"a*", "-", "baaac", "-baaac", "-b-c-", 3},
      {"", "-", "abc", "-abc", "-a-b-c-", 4},
      {"(z)?q", "<\\1>", "qq", "<>q", "<><>", 2},
      {"nomatch", "x", "abc", "abc", "abc", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    RE re(c.pattern);
    std::string once = c.text, global = c.text;
    EXPECT_EQ(re.Replace(c.rewrite, &once), c.count > 0);
    EXPECT_EQ(once, c.once);
    EXPECT_EQ(re.GlobalReplace(c.rewrite, &global), c.count);
    EXPECT_EQ(global, c.global);
  }
}

TEST(RE, BadRewritesChangeNothing) {
  RE re("(a)");
  std::string why, s = "aaa";
  EXPECT_FALSE(re.CheckRewriteString("\\2", &why));
  EXPECT_NE(why.find("2"), std::string::npos);
  EXPECT_FALSE(re.CheckRewriteString("x\\", &why));
  EXPECT_FALSE(re.CheckRewriteString("\\q", &why));
  EXPECT_TRUE(re.CheckRewriteString("\\1\\0\\\\", &why));
  EXPECT_FALSE(re.Replace("\\2", &s));
  EXPECT_EQ(re.GlobalReplace("\\2", &s), 0);
  EXPECT_EQ(s, "aaa");
  std::string out;
  EXPECT_TRUE(RE("(\\w+)@(\\w+)").Extract("\\2!\\1", "mail a@b now", &out));
  EXPECT_EQ(out, "b!a");
}

TEST(RE, GlobalReplaceStepsOverWholeUtf8Characters) {
  std::string s = "\xc3\xa9\xc3\xa9";  // two e-acute
  EXPECT_EQ(RE("", UTF8()).GlobalReplace("|", &s), 3);
  EXPECT_EQ(s, "|\xc3\xa9|\xc3\xa9|");
}

TEST(RE, QuoteMetaMatchesTheTextLiterally) {
  const std::string samples[] = {"a.b*c", "1+1=2 (really?)", "[x]{2}\\d$^|", std::string("nul\0byte", 8),
                                 "caf\xc3\xa9", "under_score"};
  for (const std::string& s : samples) {
    SCOPED_TRACE(s);
    EXPECT_TRUE(RE(RE::QuoteMeta(s)).FullMatch(s));
  }
  EXPECT_EQ(RE::QuoteMeta("a.b"), "a\\.b");
  EXPECT_EQ(RE::QuoteMeta(std::string("\0", 1)), "\\x00");
  EXPECT_EQ(RE::QuoteMeta("w_9\xc3\xa9"), "w_9\xc3\xa9");
}

TEST(RE, CompileErrorsAndOptions) {
  RE bad("a(b");
  EXPECT_FALSE(bad.error().empty());
  EXPECT_EQ(bad.NumberOfCapturingGroups(), -1);
  EXPECT_FALSE(bad.PartialMatch("ab"));
  std::string s = "ab";
  EXPECT_FALSE(bad.Replace("x", &s));

  EXPECT_TRUE(RE("abc", CASELESS()).FullMatch("ABC"));
  EXPECT_TRUE(RE("a.c", DOTALL()).FullMatch("a\nc"));
  EXPECT_FALSE(RE("a.c").FullMatch("a\nc"));
  EXPECT_TRUE(RE("^b$", MULTILINE()).PartialMatch("a\nb\nc"));
  EXPECT_TRUE(RE("a b # comment", EXTENDED()).FullMatch("ab"));
  EXPECT_TRUE(RE("^.$", UTF8()).FullMatch("\xc3\xa9"));
  // Catastrophic backtracking stops at the match limit instead of hanging.
  RE slow("(a+)+$", RE_Options().set_match_limit(1000));
  EXPECT_FALSE(slow.PartialMatch(std::string(30, 'a') + "b"));

  RE copy = RE("(x)(y)");
  RE assigned("z");
  assigned = copy;
  EXPECT_EQ(assigned.NumberOfCapturingGroups(), 2);
  EXPECT_TRUE(assigned.FullMatch("xy"));
}

TEST(RE, ConcurrentMatchesOnOneObject) {
  RE re("(\\d+)-(\\d+)");
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < 2000; ++k) {
        int a = 0, b = 0;
        std::string text = std::to_string(t) + "-" + std::to_string(k);
        if (!re.FullMatch(text, &a, &b) || a != t || b != k) ++bad[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(bad, std::vector<int>(4, 0));
}
