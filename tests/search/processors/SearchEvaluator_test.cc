// The search-term expression: tree building and its grammar faults, the
// simplification, the terms handed to the index, and the filtering of rows.
#include "search/processors/SearchEvaluator.h"
#include "search/processors/RETokenizer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "../SearchTestUtil.h"
#include "search/SearchResults.h"
#include "util/Exceptions.h"

namespace {

const char kFields[] =
    "[mv]\nTOKENIZER = (\\w+)\n"
    "[badtok]\nTOKENIZER = ([\n"
    "[ip]\nINDEXED = true\n"
    "[user]\nINDEXED_VALUE = true\n";

// A home with the shipped segmenters and a few field stanzas.
searchtest::ScratchHome& home() {
  static searchtest::ScratchHome h;
  static bool written = [] {
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/segmenters.conf");
    std::stringstream text;
    text << in.rdbuf();
    h.writeConf("segmenters", text.str());
    h.writeConf("fields", kFields);
    return true;
  }();
  (void)written;
  return h;
}

std::string tree(const std::string& search, bool optimize) {
  home();
  SearchEvaluator e(search);
  if (optimize && !e.optimize()) return "EMPTY";
  return e.toString();
}

std::string parseError(const std::string& search) {
  home();
  try {
    SearchEvaluator e(search);
    e.optimize();
    e.toIndexString();
  } catch (const SearchParsingException& ex) {
    return ex.what();
  }
  return "(no error)";
}

std::string indexString(const std::string& search) {
  home();
  SearchEvaluator e(search);
  if (!e.optimize()) return "EMPTY";
  return e.toIndexString();
}

using Row = std::map<std::string, std::string>;

// The numbers (from 0) of the rows the search keeps.
std::string kept(const std::string& search, const std::vector<Row>& rows) {
  home();
  SearchResults rs;
  for (size_t i = 0; i < rows.size(); ++i) {
    SearchResult* r = rs.addNewResult();
    r->setValue(rs.keyIndex("n", true), std::to_string(i));
    for (const auto& [k, v] : rows[i]) r->setValue(rs.keyIndex(k, true), v);
  }
  SearchEvaluator e(search);
  if (!e.optimize()) return "EMPTY";
  e.filter(rs, false);
  std::string out;
  sr_index_t n = rs.keyIndex("n");
  for (SearchResult* r : rs) {
    if (!out.empty()) out += ",";
    out += r->getValue(n);
  }
  return out;
}

struct Case {
  const char* in;
  const char* out;
};

// Tokens joined by "|".
std::string tokens(const std::string& text) {
  std::string out;
  RETokenizer tok(text);
  for (const Str& t : tok.tokens()) out += (out.empty() ? "" : "|") + t;
  return out;
}

TEST(SearchEvaluatorTest, Tokenizer) {
  const Case cases[] = {
      {"a  b", "a|b"},
      {"  a ", "a"},
      {"(a OR b)c", "(|a|OR|b|)|c"},
      {"x=1 y!=2 z<3 w<=4 v>5 u>=6", "x|=|1|y|!=|2|z|<|3|w|<=|4|v|>|5|u|>=|6"},
      {"a=\"b c\"d", "a|=|\"b c\"|d"},
      {"\"say \\\"hi\\\" now\" x", "\"say \\\"hi\\\" now\"|x"},
      {"a\tb", "a|\t|b"},
      {"a \nb", "a|b"},
      {"a\n b", "a|\n |b"},
      {"x=", "x|=|"},
      {"x= ", "x|=|"},
      {"x= y", "x|=|y"},
      {"a!b", "a!b"},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, tokens(c.in)) << "text: " << c.in;
}

TEST(SearchEvaluatorTest, TreeOfText) {
  const Case cases[] = {
      {"a b", "AND(TERM(a), TERM(b))"},
      {"a AND b", "AND(TERM(a), TERM(b))"},
      {"a b OR c", "AND(TERM(a), OR(TERM(b), TERM(c)))"},
      {"a OR b c", "AND(OR(TERM(a), TERM(b)), TERM(c))"},
      {"a OR b OR c", "AND(OR(OR(TERM(a), TERM(b)), TERM(c)))"},
      {"NOT a", "AND(NOT TERM(a))"},
      {"NOT NOT a", "AND(TERM(a))"},
      {"NOT NOT NOT a", "AND(NOT TERM(a))"},
      {"NOT (a b)", "AND(OR(NOT TERM(a), NOT TERM(b)))"},
      {"NOT a OR b", "AND(OR(NOT TERM(a), TERM(b)))"},
      {"a and b or c not d", "AND(TERM(a), TERM(and), TERM(b), TERM(or), TERM(c), TERM(not), TERM(d))"},
      {"Error", "AND(TERM(error))"},
      {"x=1", "AND(CMP(x=1 num))"},
      {"x = 1", "AND(CMP(x=1 num))"},
      {"NOT x=1", "AND(CMP(x!=1 num))"},
      {"NOT x<5", "AND(CMP(x>=5 num))"},
      {"NOT x>=abc", "AND(CMP(x<abc))"},
      {"x=\"A b\"", "AND(CMP(x=a b))"},
      {"x=\"1\"", "AND(CMP(x=1))"},
      {"a=", "AND(CMP(a=))"},
      {"host::web", "AND(CMP(host=web indexed))"},
      {"\"host::Web\"", "AND(CMP(host=web indexed))"},
      {"::web", "AND(PHRASE(*::web*))"},
      {"ip=10.1.2.3", "AND(CMP(ip=10.1.2.3 indexed))"},
      {"mv=abc", "AND(CMP(mv=abc tokenized))"},
      {"badtok=abc", "AND(CMP(badtok=abc))"},
      {"user=\"John Smith\"", "AND(CMP(user=john smith indexedvalue))"},
      {"*", "AND(AND())"},
      {"meta::all", "AND(AND())"},
      {"NOT *", "AND(OR())"},
      {"\"foo bar\"", "AND(PHRASE(*foo bar*))"},
      {"10.1.2.3", "AND(PHRASE(*10.1.2.3*))"},
      {"ab*", "AND(TERM(ab*))"},
      {"a*", "AND(PHRASE(*a**))"},
      {"\"say \\\"hi\\\"\"", "AND(PHRASE(*say \"hi\"*))"},
      {"a\tb", "AND(TERM(a), PHRASE(*\t*), TERM(b))"},
      {"", "AND()"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, tree(c.in, false)) << "search: " << c.in;
}

TEST(SearchEvaluatorTest, OptimizedTree) {
  const Case cases[] = {
      {"(a b) c", "AND(TERM(a), TERM(b), TERM(c))"},
      {"(a OR b)", "OR(TERM(a), TERM(b))"},
      {"a (b (c OR d))", "AND(TERM(a), TERM(b), OR(TERM(c), TERM(d)))"},
      {"a OR b OR c", "OR(TERM(a), TERM(b), TERM(c))"},
      {"((a))", "AND(TERM(a))"},
      {"a OR *", "AND()"},
      {"a (b OR *)", "AND(TERM(a))"},
      {"*", "AND()"},
      {"NOT *", "EMPTY"},
      {"a NOT *", "EMPTY"},
      {"a OR NOT *", "AND(TERM(a))"},
      {"NOT (a OR *)", "EMPTY"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, tree(c.in, true)) << "search: " << c.in;
}

TEST(SearchEvaluatorTest, GrammarFaults) {
  const Case cases[] = {
      {"a OR", "Missing RHS for OR"},
      {"OR a", "Missing LHS for OR"},
      {"a OR OR b", "Missing RHS for OR"},
      {"(a OR) b", "Missing RHS for OR"},
      {"NOT", "NOT requires an argument"},
      {"a NOT NOT", "NOT requires an argument"},
      {"NOT OR a", "NOT must not be followed by a binary operator"},
      {"(a", "unbalanced parentheses"},
      {"a)", "unbalanced parentheses"},
      {"(a))(", "unbalanced parentheses"},
      {"=1", "missing LHS for comparison"},
      {"(x=)", "missing RHS for comparison"},
      {"(a)=1", "invalid LHS for comparison"},
      {"x=(1)", "invalid RHS for comparison"},
      {"x==1", "invalid RHS for comparison"},
      {"_time>=200 _time<100", "empty search: start=200 > end=100"},
      {"a NOT b", "(no error)"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, parseError(c.in)) << "search: " << c.in;
}

TEST(SearchEvaluatorTest, IndexString) {
  const Case cases[] = {
      {"a b", "exact|0|2147483647|AND:|a|b|NOT:|OR:"},
      {"A NOT b", "exact|0|2147483647|AND:|a|NOT:|b|OR:"},
      {"*", "exact|0|2147483647|AND:|NOT:|OR:"},
      {"a OR b", "exact|0|2147483647|AND:|NOT:|OR:|a|b"},
      {"c a OR b", "exact|0|2147483647|AND:|c|NOT:|OR:|a|b"},
      // The branch "a b" is implied by "a": only "a" is asked for.
      {"a OR (a b)", "exact|0|2147483647|AND:|NOT:|OR:|a"},
      {"(a b) OR (a c)", "inexact|0|2147483647|AND:|NOT:|OR:|a"},
      {"(a OR b) (c OR d)", "inexact|0|2147483647|AND:|NOT:|OR:|a|b"},
      {"a OR x=1", "inexact|0|2147483647|AND:|NOT:|OR:"},
      {"\"foo bar\"", "inexact|0|2147483647|AND:|bar|foo|NOT:|OR:"},
      {"NOT \"foo bar\"", "inexact|0|2147483647|AND:|NOT:|OR:"},
      {"ab*", "inexact|0|2147483647|AND:|ab*|NOT:|OR:"},
      {"a* b", "inexact|0|2147483647|AND:|b|NOT:|OR:"},
      {"host::Web", "exact|0|2147483647|AND:|host::web|NOT:|OR:"},
      {"\"host::web\"", "exact|0|2147483647|AND:|host::web|NOT:|OR:"},
      {"ip=10.1.2.3", "exact|0|2147483647|AND:|ip::10.1.2.3|NOT:|OR:"},
      {"NOT host::web", "inexact|0|2147483647|AND:|NOT:|OR:"},
      {"user=\"John Smith\"", "inexact|0|2147483647|AND:|john|smith|NOT:|OR:"},
      {"x=1", "inexact|0|2147483647|AND:|NOT:|OR:"},
      {"_time>=100 _time<200 a", "exact|100|200|AND:|a|NOT:|OR:"},
      {"_time>100.5 a", "inexact|100|2147483647|AND:|a|NOT:|OR:"},
      {"_time<=200 a", "inexact|0|201|AND:|a|NOT:|OR:"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, indexString(c.in)) << "search: " << c.in;
}

// A key without a stanza of its own takes the settings of [default]: with
// INDEXED_VALUE there (as shipped), key=value looks up the value's words.
TEST(SearchEvaluatorTest, KeysWithoutAStanzaTakeTheDefault) {
  home().writeConf("fields", std::string("[default]\nINDEXED_VALUE = true\n[plain]\nINDEXED_VALUE = false\n") + kFields);
  const Case cases[] = {
      {"x=1", "inexact|0|2147483647|AND:|1|NOT:|OR:"},
      {"request_id=3F88887C", "inexact|0|2147483647|AND:|3f88887c|NOT:|OR:"},
      {"src=10.0.0.2", "inexact|0|2147483647|AND:|0|10|2|NOT:|OR:"},
      {"plain=1", "inexact|0|2147483647|AND:|NOT:|OR:"},
      {"x!=1", "inexact|0|2147483647|AND:|NOT:|OR:"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, indexString(c.in)) << "search: " << c.in;
  home().writeConf("fields", kFields);
}

TEST(SearchEvaluatorTest, ComparisonsOnRows) {
  const std::vector<Row> xs = {{{"x", "1"}}, {{"x", "1.0"}}, {{"x", "01"}}, {{"x", "2"}},
                               {{"x", "abc"}}, {},           {{"x", ""}}};
  EXPECT_EQ("0,1,2", kept("x=1", xs));
  EXPECT_EQ("3,4,6", kept("x!=1", xs));  // a missing field is not "not equal"
  EXPECT_EQ("3,4,6", kept("NOT x=1", xs));
  EXPECT_EQ("6", kept("x=", xs));
  EXPECT_EQ("6", kept("x=\"\"", xs));
  EXPECT_EQ("0,1,2,3,4,6", kept("x=*", xs));
  EXPECT_EQ("4", kept("x=A*", xs));
  EXPECT_EQ("0,1,2,3,4,6", kept("x=* OR y=1", xs));

  // Numbers when both sides are numbers, bytes otherwise.
  const std::vector<Row> sizes = {{{"size", "9"}}, {{"size", "11"}}, {{"size", "10"}}, {{"size", "abc"}},
                                  {{"size", "10x"}}};
  EXPECT_EQ("1,3,4", kept("size>10", sizes));  // "10x" > "10" as text
  EXPECT_EQ("0,2", kept("size<=10", sizes));
  EXPECT_EQ("0,2", kept("NOT size>10", sizes));
  EXPECT_EQ("1,2,3", kept("size>9", sizes));  // "10x" < "9" as text
  EXPECT_EQ("1,2,3,4", kept("size>=10", sizes));

  const std::vector<Row> pairs = {{{"x", "1"}, {"y", "3"}}, {{"x", "1"}}, {{"x", "1"}, {"y", "2"}}};
  EXPECT_EQ("0", kept("x=1 y!=2", pairs));
  EXPECT_EQ("0,1,2", kept("x=1 OR y!=2", pairs));

  // A field with a tokenizer: each element in turn.
  const std::vector<Row> mv = {{{"mv", "a,b,c"}}, {{"mv", "abc"}}, {{"mv", "a, 07"}}, {{"mv", ""}}};
  EXPECT_EQ("0", kept("mv=b", mv));
  EXPECT_EQ("1,2,3", kept("mv!=b", mv));
  EXPECT_EQ("2", kept("mv=7", mv));
  EXPECT_EQ("1", kept("mv=ab*", mv));
  EXPECT_EQ("0,2", kept("mv=a mv!=abc", mv));
  // An invalid tokenizer is dropped: the value is matched whole.
  EXPECT_EQ("0", kept("badtok=\"a b\"", {{{"badtok", "A B"}}, {{"badtok", "a"}}}));
}

TEST(SearchEvaluatorTest, TermsOnRawText) {
  const std::vector<Row> raws = {
      {{"_raw", "An ERROR here"}},       {{"_raw", "errors only"}},   {{"_raw", "the disk full now"}},
      {{"_raw", "disk is full"}},        {{"_raw", "this and that"}}, {{"_raw", "user=bob@10.1.2.3 ok"}},
      {{"other", "no raw text at all"}},
  };
  EXPECT_EQ("0", kept("error", raws));
  EXPECT_EQ("0", kept("ERROR", raws));
  EXPECT_EQ("0,1", kept("err*", raws));
  EXPECT_EQ("1,2,3,4,5,6", kept("NOT error", raws));
  EXPECT_EQ("2", kept("\"disk full\"", raws));
  EXPECT_EQ("2,3", kept("disk full", raws));
  EXPECT_EQ("0,2,3", kept("disk OR error", raws));
  EXPECT_EQ("4", kept("and", raws));
  EXPECT_EQ("5", kept("10.1.2.3", raws));
  EXPECT_EQ("5", kept("bob", raws));
  EXPECT_EQ("5", kept("*bob*", raws));
  EXPECT_EQ("0,1,2,3,4,5,6", kept("*", raws));
  EXPECT_EQ("", kept("nothing", raws));

  // Terms that share a long prefix are told apart past the trie's depth.
  const std::vector<Row> longs = {{{"_raw", "abcdefghijklmnopqrstuvwxyz"}},
                                  {{"_raw", "abcdefghijklmnopqrstuvwxyZ1"}},
                                  {{"_raw", "abcdefghijklmnop"}}};
  EXPECT_EQ("0", kept("abcdefghijklmnopqrstuvwxyz", longs));
  EXPECT_EQ("1", kept("abcdefghijklmnopqrstuvwxyz1", longs));
  EXPECT_EQ("0,1", kept("abcdefghijklmnopqrstuvwxy*", longs));
  EXPECT_EQ("2", kept("abcdefghijklmnop", longs));
  EXPECT_EQ("0,2", kept("abcdefghijklmnop OR abcdefghijklmnopqrstuvwxyz", longs));

  // "key::value" is a comparison with the field, quoted or not.
  const std::vector<Row> hosts = {{{"host", "Web"}}, {{"host", "web2"}}, {{"_raw", "host::web"}}};
  EXPECT_EQ("0", kept("host::web", hosts));
  EXPECT_EQ("0", kept("\"host::web\"", hosts));
  EXPECT_EQ("0,1", kept("host::web*", hosts));
}

TEST(SearchEvaluatorTest, BindingOfAndOrNot) {
  const std::vector<Row> rows = {{{"_raw", "a c"}}, {{"_raw", "a"}}, {{"_raw", "b"}},
                                 {{"_raw", "a b"}}, {{"_raw", "c"}}, {{"_raw", "b c"}}};
  // Adjacency binds looser than OR.
  EXPECT_EQ("0,3", kept("a b OR c", rows));
  EXPECT_EQ("0,5", kept("a OR b c", rows));
  EXPECT_EQ("0,1,3", kept("NOT NOT a", rows));
  EXPECT_EQ(kept("a", rows), kept("NOT NOT a", rows));
  EXPECT_EQ("2,4,5", kept("NOT a", rows));
  EXPECT_EQ("0,1,2,4,5", kept("NOT (a b)", rows));
  EXPECT_EQ("0,2,3,5", kept("(a OR b) (b OR c)", rows));
  // Terms and comparisons together, the comparison deciding last.
  EXPECT_EQ("1", kept("a k=1", {{{"_raw", "a"}, {"k", "2"}}, {{"_raw", "a"}, {"k", "1"}}, {{"k", "1"}}}));
}

}  // namespace
