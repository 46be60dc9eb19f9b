// The text passes of the query compiler, as tables of text in, text out:
// "=" and "!=" rewriting, grouping parentheses, tokens with quotes, and the
// expansion of saved searches.
#include "pipeline/indexer/QueryLanguageParser.h"

#include <gtest/gtest.h>

#include <map>

#include "pipeline/indexer/ISavedSearchSource.h"
#include "util/Exceptions.h"

namespace {

struct Case {
  const char* in;
  const char* out;
};

TEST(QueryLanguageParser, IndexifyRewritesComparisonsOutsideQuotes) {
  const Case cases[] = {
      {"host=a", "host::a"},
      {"host!=a", "NOT host::a"},
      {"host = a  status != 500", "host::a  NOT status::500"},
      {"a=b c!=d", "a::b NOT c::d"},
      {"\"a=b\" c=d", "\"a=b\" c::d"},
      {"\"x \\\" y=z\" w=v", "\"x \\\" y=z\" w::v"},  // an escaped quote does not end the run
      {"user=\"bob smith\"", "user::\"bob smith\""},
      {"unclosed \"a=b", "unclosed \"a=b"},
      {"=b", "=b"},  // nothing to name
      {"plain words", "plain words"},
  };
  for (const Case& c : cases) EXPECT_EQ(QueryLanguageParser::indexify(c.in), c.out) << c.in;
}

TEST(QueryLanguageParser, ParenthesesBecomeTokensWhereTheyGroup) {
  const Case cases[] = {
      {"(a OR b) ", "( a OR b ) "},
      {"((a)) ", "( ( a ) ) "},
      {"foo(bar ", "foo(bar "},
      {"foo(bar) ", "foo(bar) "},          // closes its own word's parenthesis
      {"(foo(bar)) ", "( foo(bar) ) "},
      {"\\(a ", "(a "},                  // escaped: literal, backslash gone
      {"a\\) ", "a) "},
      {"x\\)y ", "x)y "},
      {"\"(a b)\" ", "\"(a b)\" "},      // quoted: literal
      {"a)b ", "a)b "},                  // not at the end of a word
      {"NOT (a) ", "NOT ( a ) "},
      {"() ", "(  ) "},
  };
  for (const Case& c : cases) EXPECT_EQ(QueryLanguageParser::handleParensInQuery(c.in), c.out) << c.in;
}

TEST(QueryLanguageParser, TokensKeepQuotedRunsTogether) {
  struct TokCase {
    const char* in;
    std::vector<Str> tokens;
    char open;
  };
  const TokCase cases[] = {
      {"a  b\tc\n", {"a", "b", "c"}, 0},
      {"\"foo bar\" baz", {"foo bar", "baz"}, 0},
      {"host::\"a b\"", {"host::a b"}, 0},
      {"say \\\"hi\\\"", {"say", "\"hi\""}, 0},
      {"\"in \\\" side\"", {"in \" side"}, 0},
      {"\"\" x", {"x"}, 0},  // an empty run is no token
      {"a \"open", {"a"}, '"'},
  };
  for (const TokCase& c : cases) {
    std::vector<Str> tokens;
    EXPECT_EQ(QueryLanguageParser::tokenizeString(c.in, tokens), c.open) << c.in;
    if (!c.open) {
      EXPECT_EQ(tokens, c.tokens) << c.in;
    }
  }
}

class Saved : public ISavedSearchSource {
 public:
  std::map<Str, Str> texts;
  bool lookup(const Str& name, const Str& user, Str& text) override {
    auto it = texts.find(user + "/" + name);
    if (it == texts.end()) return false;
    text = it->second;
    return true;
  }
};

class SavedSearchExpansion : public ::testing::Test {
 protected:
  void SetUp() override {
    source = std::make_shared<Saved>();
    previous = ISavedSearchSource::install(source);
  }
  void TearDown() override { ISavedSearchSource::install(previous); }

  Str expand(Str text, std::vector<Str>* info = nullptr) {
    std::vector<Str> notes;
    QueryLanguageParser::handleSavedVelmorsInSearch(text, "bob", notes);
    if (info) *info = notes;
    return text;
  }

  std::shared_ptr<Saved> source;
  std::shared_ptr<ISavedSearchSource> previous;
};

TEST_F(SavedSearchExpansion, NamesAreReplacedByTheirSearch) {
  source->texts["bob/errs"] = "error host=web1";
  source->texts["bob/nested"] = "savedsearch::errs OR (fatal)";
  source->texts["bob/with blank"] = "disk";
  source->texts["bob/keys"] = "<search><keys><key>error</key><key>host::a</key></keys></search>";
  const Case cases[] = {
      {"savedsearch::errs ", "( error host::web1 ) "},
      {"a savedvelmor::errs b ", "a ( error host::web1 ) b "},
      {"savedsearch::nested ", "( ( error host::web1 ) OR ( fatal ) ) "},
      {"savedsearch::\"with blank\" x ", "( disk ) x "},
      {"savedsearch::keys ", "( error host::a ) "},
      {"\"savedsearch::errs\" ", "\"savedsearch::errs\" "},  // quoted: text
      {"xsavedsearch::errs ", "xsavedsearch::errs "},        // not a word of its own
  };
  for (const Case& c : cases) EXPECT_EQ(expand(c.in), c.out) << c.in;
}

TEST_F(SavedSearchExpansion, UnknownNamesAreDroppedWithANote) {
  std::vector<Str> info;
  EXPECT_EQ(expand("a savedsearch::nope b ", &info), "a b ");
  EXPECT_EQ(info, std::vector<Str>{"Unable to find savedvelmor nope"});
  // Another user's saved search is unknown too.
  source->texts["alice/errs"] = "error";
  EXPECT_EQ(expand("savedsearch::errs ", &info), "");
  EXPECT_EQ(info, std::vector<Str>{"Unable to find savedvelmor errs"});
}

TEST_F(SavedSearchExpansion, NoSourceInstalledMeansUnknown) {
  ISavedSearchSource::install(nullptr);
  std::vector<Str> info;
  EXPECT_EQ(expand("savedvelmor::x ", &info), "");
  EXPECT_EQ(info, std::vector<Str>{"Unable to find savedvelmor x"});
}

TEST_F(SavedSearchExpansion, ASearchNamingItselfIsRefused) {
  source->texts["bob/loop"] = "a savedsearch::loop";
  try {
    expand("savedsearch::loop ");
    FAIL() << "expanded forever";
  } catch (const QueryParseException& e) {
    EXPECT_STREQ(e.what(), "Too many saved searches to expand (does saved search loop name itself?)");
  }
}

TEST(QueryLanguageParser, SavedTextInXmlFormUsesItsKeys) {
  EXPECT_EQ(QueryLanguageParser::savedSearchText("<keys><key>a</key><key>b c</key></keys>"), "a b c");
  EXPECT_EQ(QueryLanguageParser::savedSearchText("plain <key> text"), "plain <key> text");  // not XML
  EXPECT_EQ(QueryLanguageParser::savedSearchText("error"), "error");
}

}  // namespace
