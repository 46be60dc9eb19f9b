// Output templates of regex rules, as a table: template text and groups in,
// text and highest group out.
#include "pipeline/analysis/StringTemplate.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Row {
  const char* text;
  std::vector<const char*> groups;  // group 1, 2, ...; nullptr: took no part
  const char* expected;
  unsigned maxGroup;
};

TEST(StringTemplateTest, Interpolation) {
  const Row rows[] = {
      {"plain", {"a"}, "plain", 0},
      {"$1", {"a"}, "a", 1},
      {"host::$1", {"web7"}, "host::web7", 1},
      {"x$1y$2z", {"a", "b"}, "xaybz", 2},
      // two digits at most
      {"$12", {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "twelve"}, "twelve", 12},
      {"$123", {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "twelve"}, "twelve3", 12},
      {"$10", {"a"}, "", 10},  // beyond the groups given: nothing
      // "$$" is one "$"; "$" before anything else is plain text
      {"$$1", {"a"}, "$1", 0},
      {"$$$1", {"5"}, "$5", 1},
      {"$0", {"a"}, "$0", 0},
      {"$01", {"a"}, "$01", 0},
      {"a$", {}, "a$", 0},
      // a group that took no part writes nothing
      {"$1-$2", {nullptr, "b"}, "-b", 2},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    StringTemplate t(r.text);
    std::vector<StringPiece> groups;
    for (const char* g : r.groups) groups.push_back(g ? StringPiece(g) : StringPiece());
    Str out = "pre:";  // interpolate appends
    t.interpolate(groups.data(), groups.size(), out);
    EXPECT_EQ(out, Str("pre:") + r.expected);
    EXPECT_EQ(t.maxGroup(), r.maxGroup);
    EXPECT_EQ(t.isLiteral(), r.maxGroup == 0);
  }
}

}  // namespace
