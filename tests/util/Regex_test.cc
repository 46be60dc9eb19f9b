#include "util/Regex.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

class MapResolver : public RegexNameResolver {
 public:
  explicit MapResolver(std::map<Str, Str> m) : _m(std::move(m)) {}
  Str resolve(const Str& name) override {
    auto it = _m.find(name);
    return it == _m.end() ? Str() : it->second;
  }

 private:
  std::map<Str, Str> _m;
};

std::string errorOf(const Str& pattern, RegexNameResolver& r) {
  try {
    Regex::resolveModularPattern(pattern, r);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace

TEST(Regex, InitReadsGroupsAndNamesInBothSyntaxes) {
  Regex re("(?P<user>\\w+)@(?<host>[\\w.]+)(:(\\d+))?", true);
  EXPECT_EQ(re.getCaptureCount(), 4u);
  std::map<Str, unsigned> want{{"user", 1}, {"host", 2}};
  EXPECT_EQ(re.getNameMap(), want);

  Regex empty;
  EXPECT_FALSE(empty.isInitialized());
  empty.init("x", false);
  EXPECT_TRUE(empty.isInitialized());
  EXPECT_EQ(empty.getCaptureCount(), 0u);
}

TEST(Regex, CompileErrorThrowsWithLibraryMessage) {
  for (const char* bad : {"a(b", "[z-a]", "(?<n>a)(?<n>b)", "*"}) {
    SCOPED_TRACE(bad);
    try {
      Regex re(bad);
      ADD_FAILURE() << "compiled";
    } catch (const std::runtime_error& e) {
      std::string msg = e.what();
      EXPECT_EQ(msg.rfind("Regex: ", 0), 0u) << msg;
      EXPECT_GT(msg.size(), 7u);
    }
  }
}

TEST(Regex, MatchFillsGroupsAndUnsetGroupsAreNull) {
  Regex re("(?<user>\\w+)@(\\w+)(:(\\d+))?");
  Str subject = "mail bob@host now";
  StrSegment text(subject);
  RegexMatch m;
  ASSERT_TRUE(re.match(text, &m));
  ASSERT_EQ(m.size(), 5u);
  EXPECT_EQ(m.getGroup(0).toStr(), "bob@host");
  EXPECT_EQ(m.getGroup(1).data(), subject.data() + 5);  // points into the subject
  EXPECT_EQ(m.getGroup(2).toStr(), "host");
  EXPECT_EQ(m.getGroup(3).data(), nullptr);
  EXPECT_TRUE(m.getGroup(4).empty());
  EXPECT_EQ(m.getMatchStart(), 5u);
  EXPECT_EQ(m.getMatchEnd(), 13u);
  EXPECT_EQ(text.size(), subject.size());  // not advanced

  try {
    m.getGroup(5);
    ADD_FAILURE() << "no throw";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "IndexOutOfBounds Exception: idx = 5, size = 5");
  }

  std::map<Str, Str> named;
  m.getAllGroups(named);
  EXPECT_EQ(named, (std::map<Str, Str>{{"user", "bob"}}));
}

TEST(Regex, AdvanceAndToEnd) {
  Regex word("\\w+");
  Str subject = "ab cd ef";
  StrSegment text(subject);
  std::vector<Str> words;
  RegexMatch m;
  while (word.match(text, &m, true)) words.push_back(m.getGroup(0).toStr());
  EXPECT_EQ(words, (std::vector<Str>{"ab", "cd", "ef"}));
  EXPECT_TRUE(text.empty());
  // advance on an empty text fails even for a pattern that matches nothing.
  StrSegment none;
  EXPECT_FALSE(Regex("x*").match(none, nullptr, true));
  // without advance, a null text is the empty string
  EXPECT_TRUE(Regex("^$").match(none));

  // toEnd: the first match must end where the text ends.
  StrSegment t1("abc");
  EXPECT_TRUE(Regex("c").match(t1, nullptr, false, true));
  StrSegment t2("abcx");
  EXPECT_FALSE(Regex("c").match(t2, nullptr, false, true));
  StrSegment t3("a1b2");
  EXPECT_FALSE(Regex("\\d").match(t3, nullptr, true, true));
  EXPECT_EQ(t3.size(), 4u);  // a failure does not advance
}

TEST(Regex, ReplaceAll) {
  struct Case {
    const char* pattern;
    const char* text;
    const char* replacement;
    bool expand;
    const char* out;
    unsigned count;
  } cases[] = {
      {"(\\w+)=(\\w+)", "a=1 b=2", "\\2:\\1", true, "1:a 2:b", 2},
      {"(\\w+)=(\\w+)", "a=1", "\\2:\\1", false, "\\2:\\1", 1},
      {"(x)", "axb", "[\\1\\1]", true, "a[xx]b", 1},
      {"(x)", "axb", "\\\\1", true, "a\\1b", 1},            // escaped backslash, then a digit
      {"(x)", "axb", "\\n\\1", true, "a\\nxb", 1},          // backslash before a non-digit stays
      {"(x)(y)?", "ax", "<\\2|\\9>", true, "a<|>", 1},      // unset and missing groups are empty
      {"o", "foo", "0", true, "f00", 2},
      {"z*", "ab", "-", true, "-a-b-", 3},
      {"q", "none", "x", true, "none", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " / " + c.replacement);
    Regex re(c.pattern);
    Str out = "stale";
    EXPECT_EQ(re.replaceAll(StrSegment(c.text), c.replacement, out, c.expand), c.count);
    EXPECT_EQ(out, c.out);
  }
}

TEST(Regex, IsModularPattern) {
  EXPECT_TRUE(Regex::isModularPattern("[[ip]]"));
  EXPECT_TRUE(Regex::isModularPattern("src=[[ip:src]] port"));
  EXPECT_FALSE(Regex::isModularPattern("\\[[ip]]"));  // escaped bracket
  EXPECT_FALSE(Regex::isModularPattern("[ip]"));
  EXPECT_FALSE(Regex::isModularPattern("[[]]"));
  EXPECT_FALSE(Regex::isModularPattern("[[a:b:c]]"));
}

TEST(Regex, ResolveModularPattern) {
  MapResolver r({{"int", "\\d+"},
                 {"ip", "[[int]]\\.[[int]]\\.[[int]]\\.[[int]]"},
                 {"named", "(?<addr>[[ip]])"},
                 {"pyname", "(?P<a>x)(?P<b>y)"}});
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"plain", "plain"},
      {"n=[[int]];", "n=\\d+;"},
      {"[[int]]+", "(?:\\d+)+"},
      {"[[int]]{2}[[int]]?[[int]]*", "(?:\\d+){2}(?:\\d+)?(?:\\d+)*"},
      {"[[ip]]", "\\d+\\.\\d+\\.\\d+\\.\\d+"},
      {"[[int:num]]", "(?<num>\\d+)"},
      {"[[named:src]]", "(?<srcaddr>\\d+\\.\\d+\\.\\d+\\.\\d+)"},
      {"[[pyname:p_]]", "(?<p_a>x)(?<p_b>y)"},
      {"\\[[int]] [[int]]", "\\[[int]] \\d+"},
      {"line1\nv=[[int]]", "line1\nv=\\d+"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    Str out = Regex::resolveModularPattern(c.in, r);
    EXPECT_EQ(out, c.out);
    EXPECT_NO_THROW(Regex re(out));
  }
  // A resolved capture name is usable as a named group.
  Regex re(Regex::resolveModularPattern("from [[named:src]] to [[named:dst]]", r));
  Str subject = "from 1.2.3.4 to 5.6.7.8";
  StrSegment text(subject);
  RegexMatch m;
  ASSERT_TRUE(re.match(text, &m));
  std::map<Str, Str> groups;
  m.getAllGroups(groups);
  EXPECT_EQ(groups, (std::map<Str, Str>{{"srcaddr", "1.2.3.4"}, {"dstaddr", "5.6.7.8"}}));
}

TEST(Regex, ResolveModularPatternErrors) {
  MapResolver r({{"self", "a[[self]]"},
                 {"ping", "[[pong]]"},
                 {"pong", "x[[ping]]"},
                 {"outer", "<[[inner]]>"},
                 {"inner", "[[missing]]"},
                 {"twice", "[[leaf]][[leaf]]"},
                 {"leaf", "z"}});
  EXPECT_EQ(errorOf("[[missing]]", r), "Regex - Cannot find regex reference: missing");
  EXPECT_EQ(errorOf("[[self]]", r), "Regex - Circular depency for modular regex: self, in regex: 'a[[self]]'");
  EXPECT_EQ(errorOf("[[ping]]", r),
            "Regex - Circular depency for modular regex: ping, in regex: 'x[[ping]]', in regex: '[[pong]]'");
  EXPECT_EQ(errorOf("[[outer]]", r),
            "Regex - Cannot find regex reference: missing, in regex: '[[missing]]', in regex: '<[[inner]]>'");
  // The same name used twice side by side is not a cycle.
  EXPECT_EQ(Regex::resolveModularPattern("[[twice]]-[[leaf]]", r), "zz-z");
}

TEST(Regex, MatchesLinesOfRealLogs) {
  std::string path = VELMOR_SOURCE_DIR "/../shared/data/loghub/OpenSSH/OpenSSH_2k.log";
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) GTEST_SKIP() << "no log data at " << path;
  Regex re("Failed password for (?:invalid user )?(?<user>\\S+) from (?<ip>[\\d.]+) port (?<port>\\d+)", true);
  char line[4096];
  int hits = 0;
  RegexMatch m;
  while (fgets(line, sizeof line, f)) {
    StrSegment text(line);
    if (!re.match(text, &m)) continue;
    ++hits;
    std::map<Str, Str> g;
    m.getAllGroups(g);
    EXPECT_EQ(g.size(), 3u);
    EXPECT_TRUE(Str(line).find("port " + g["port"]) != Str::npos);
  }
  fclose(f);
  EXPECT_GT(hits, 0);
}
