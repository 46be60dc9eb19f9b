// Regex rules built from stanza keys and applied to records: a table of
// rule, record in, keys out; and a table of rules that must be refused.
#include "pipeline/analysis/RegexExtractor.h"

#include <gtest/gtest.h>

#include <string>

#include "pipeline/analysis/MapRegexNameResolver.h"

namespace {

// "KEY=value" lines; the first "=" ends the key.
template <class T>
void fill(T& dest, const char* lines) {
  std::string s(lines);
  for (size_t pos = 0; pos < s.size();) {
    size_t nl = s.find('\n', pos);
    if (nl == std::string::npos) nl = s.size();
    std::string line = s.substr(pos, nl - pos);
    size_t eq = line.find('=');
    dest.put(Str(line.substr(0, eq)), Str(line.substr(eq + 1)));
    pos = nl + 1;
  }
}

MapRegexNameResolver& resolver() {
  static MapRegexNameResolver r({{"num", "\\d+"}, {"word", "(?<w>\\w+)"}, {"loop", "[[loop]]"}});
  return r;
}

struct ApplyRow {
  const char* stanza;
  const char* record;    // keys before
  const char* expected;  // keys after; "KEY=" with nothing behind: absent
};

TEST(RegexExtractorTest, AppliesRules) {
  const ApplyRow rows[] = {
      // templates: <stanza>::$1 by default, PREPEND, FORMAT (which wins)
      {"REGEX=user=(\\w+)\nWRITE_META=true", "_raw=login user=bob ok", "_meta=r::bob"},
      {"REGEX=(\\w+)@(\\w+)\nFORMAT=$2/$1\nDEST_KEY=out", "_raw=mail bob@example", "out=example/bob"},
      {"REGEX=id=(\\d+)\nPREPEND=id_\nDEST_KEY=out", "_raw=x id=42", "out=id_42"},
      {"REGEX=id=(\\d+)\nPREPEND=id_\nFORMAT=n$1\nDEST_KEY=out", "_raw=x id=42", "out=n42"},
      {"REGEX=(x)\nFORMAT=$HOME$1\nDEST_KEY=out", "_raw=x", "out=$HOMEx"},  // no environment
      {"REGEX=(a)|(b)\nFORMAT=$1-$2\nDEST_KEY=out", "_raw=b", "out=-b"},
      // WRITE_META appends to the terms, and wins over DEST_KEY
      {"REGEX=user=(\\w+)\nWRITE_META=yes\nFORMAT=user::$1", "_raw=user=al\n_meta=timestamp::none",
       "_meta=timestamp::none user::al"},
      {"REGEX=user=(\\w+)\nWRITE_META=1\nDEST_KEY=out", "_raw=user=al", "_meta=r::al\nout="},
      {"REGEX=(x)", "_raw=x", "_meta=\nout="},  // nowhere to write
      // REPEAT_MATCH: blank-separated terms, values joined as FORMAT says
      {"REGEX=k=(\\w)\nWRITE_META=true\nREPEAT_MATCH=true", "_raw=k=x k=y junk k=z", "_meta=r::x r::y r::z"},
      {"REGEX=k=(\\w)\nFORMAT=$1;\nDEST_KEY=out\nREPEAT_MATCH=true", "_raw=k=x k=y", "out=x;y;"},
      {"REGEX=k=(\\w)\nFORMAT=$1;\nDEST_KEY=out", "_raw=k=x k=y", "out=x;"},
      {"REGEX=(x*)\nFORMAT=[$1]\nDEST_KEY=out\nREPEAT_MATCH=true", "_raw=axxb", "out=[][xx]"},
      // LOOKAHEAD hides the rest, also the rest of a match
      {"REGEX=id=(\\d+)\nFORMAT=$1\nDEST_KEY=out\nLOOKAHEAD=6", "_raw=abc id=7", "out="},
      {"REGEX=id=(\\d+)\nFORMAT=$1\nDEST_KEY=out\nLOOKAHEAD=6", "_raw=id=12345", "out=123"},
      // DEFAULT_VALUE on no match; without it the key is left alone
      {"REGEX=id=(\\d+)\nDEST_KEY=out\nDEFAULT_VALUE=none", "_raw=nothing\nout=old", "out=none"},
      {"REGEX=id=(\\d+)\nDEST_KEY=out", "_raw=nothing\nout=old", "out=old"},
      // SOURCE_KEY, and an absent source reads as empty text
      {"REGEX=^source::/var/log/(\\w+)/\nSOURCE_KEY=MetaData:Source\nFORMAT=sourcetype::$1\n"
       "DEST_KEY=MetaData:Sourcetype",
       "_raw=text\nMetaData:Source=source::/var/log/nginx/a.log", "MetaData:Sourcetype=sourcetype::nginx"},
      {"REGEX=^$\nSOURCE_KEY=nokey\nFORMAT=empty\nDEST_KEY=out", "_raw=text", "out=empty"},
      // modular patterns, also with a renamed capture
      {"REGEX=port=([[num]])\nFORMAT=$1\nDEST_KEY=out", "_raw=port=8089", "out=8089"},
      {"REGEX=by [[word:who]]\nFORMAT=$1\nDEST_KEY=out", "_raw=made by ann", "out=ann"},
  };
  for (const ApplyRow& r : rows) {
    SCOPED_TRACE(r.stanza);
    PropertiesMap stanza;
    fill(stanza, r.stanza);
    auto e = RegexExtractor::build("r", stanza, resolver());
    ASSERT_NE(e, nullptr);
    PipelineData rec, expected;
    fill(rec, r.record);
    fill(expected, r.expected);
    e->extract(rec);
    for (const auto& [k, v] : expected) {
      if (v->empty())
        EXPECT_FALSE(rec.contains(*k)) << *k << " = " << rec.getStr(*k);
      else
        EXPECT_EQ(rec.getStr(*k), *v) << *k;
    }
  }
}

TEST(RegexExtractorTest, RefusesBrokenRules) {
  const std::pair<const char*, const char*> rows[] = {  // stanza, expected in the log
      {"FORMAT=x\nDEST_KEY=out", ""},
      {"REGEX=\nDEST_KEY=out", ""},
      {"REGEX=a(b\nFORMAT=x", "Cannot compile RE \"a(b\" for r: "},
      {"REGEX=a(b)\nFORMAT=$2", "Too few groups in regex: a(b); captures: 1, args: 2"},
      {"REGEX=abc", "Too few groups in regex: abc; captures: 0, args: 1"},
      {"REGEX=x[[nope]]\nFORMAT=x", "Cannot compile RE \"x[[nope]]\" for r: Regex - Cannot find regex reference: nope"},
      {"REGEX=[[loop]]\nFORMAT=x", "Circular depency for modular regex: loop"},
  };
  for (const auto& [text, logged] : rows) {
    SCOPED_TRACE(text);
    PropertiesMap stanza;
    fill(stanza, text);
    testing::internal::CaptureStderr();
    auto e = RegexExtractor::build("r", stanza, resolver());
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(e, nullptr);
    EXPECT_NE(log.find(logged), std::string::npos) << log;
  }
}

}  // namespace
