// Expansion of search text: names resolved through fake resolvers (and
// through none), repetition to a fixed point, cycles, and time words kept
// per parenthesis.
#include "search/processors/StringSearchExpander.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <map>
#include <memory>
#include <vector>

#include "pipeline/indexer/ISavedSearchSource.h"
#include "pipeline/indexer/ITagResolver.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Exceptions.h"

#include "../SearchTestUtil.h"

namespace {

class FakeResolver : public ITagResolver {
 public:
  std::map<Str, std::vector<Str>> known;  // "<kind>:<name>" -> terms
  bool find(const Str& key, std::vector<Str>& terms) {
    auto it = known.find(key);
    if (it == known.end()) return false;
    terms = it->second;
    return true;
  }
  bool resolveHostTag(const Str& tag, const Str&, std::vector<Str>& t) override { return find("hosttag:" + tag, t); }
  bool resolveEventType(const Str& n, const Str&, std::vector<Str>& t) override { return find("eventtype:" + n, t); }
  bool resolveEventTypeTag(const Str& tag, const Str&, std::vector<Str>& t) override {
    return find("eventtypetag:" + tag, t);
  }
  bool resolveSourceType(const Str& n, const Str&, std::vector<Str>& t) override { return find("sourcetype:" + n, t); }
  bool resolveTag(const Str& field, const Str& tag, const Str&, std::vector<Str>& t) override {
    return find("tag:" + field + ":" + tag, t);
  }
};

class FakeSaved : public ISavedSearchSource {
 public:
  std::map<Str, Str> texts;
  bool lookup(const Str& name, const Str&, Str& text) override {
    auto it = texts.find(name);
    if (it == texts.end()) return false;
    text = it->second;
    return true;
  }
};

// Installs the fakes for one test and puts back what was there.
class Installed {
 public:
  Installed(std::shared_ptr<ITagResolver> r, std::shared_ptr<ISavedSearchSource> s)
      : _r(ITagResolver::install(std::move(r))), _s(ISavedSearchSource::install(std::move(s))) {}
  ~Installed() {
    ITagResolver::install(_r);
    ISavedSearchSource::install(_s);
  }

 private:
  std::shared_ptr<ITagResolver> _r;
  std::shared_ptr<ISavedSearchSource> _s;
};

struct Case {
  const char* in;
  const char* out;
  std::vector<Str> warnings;
};

const time_t kNow = 1000000;

void runCases(const std::vector<Case>& cases) {
  StringSearchExpander expander("alice", kNow);
  for (const Case& c : cases) {
    std::vector<Str> warnings;
    EXPECT_EQ(expander.expandSearch(c.in, warnings), Str(c.out)) << c.in;
    EXPECT_EQ(warnings, c.warnings) << c.in;
  }
}

std::shared_ptr<FakeResolver> makeResolver() {
  auto r = std::make_shared<FakeResolver>();
  r->known["tag:host:blue"] = {"host::web3", "web4"};
  r->known["tag:eventtype:blue"] = {"eventtype::login"};
  r->known["tag:eventtype:admin"] = {"eventtype::login"};
  r->known["tag:eventtype:ghosts"] = {"eventtype::ghost"};
  r->known["eventtype:login"] = {"tag::host::blue", "failed"};
  r->known["eventtype:pair"] = {"code=5 status=bad"};
  r->known["eventtype:empty"] = {};
  r->known["sourcetype:apps"] = {"sourcetype::app", "sourcetype::other"};
  r->known["sourcetype:app"] = {"sourcetype::app", "sourcetype::other"};
  return r;
}

TEST(StringSearchExpander, WithNothingInstalledNamesStayAndWarnOnce) {
  Installed none(nullptr, nullptr);
  runCases({
      {"tag::x", "tag::x", {"Unable to find tag x"}},
      {"tag::x error tag=x", "tag::x error tag=x", {"Unable to find tag x"}},
      {"tag::host::web", "tag::host::web", {"Unable to find tag web on host"}},
      {"hosttag::prod", "hosttag::prod", {"Unable to find tag prod on host"}},
      {"eventtypetag=t", "eventtypetag=t", {"Unable to find tag t on eventtype"}},
      {"eventtype::e", "eventtype::e", {"Unable to find an eventtype e"}},
      {"savedsearch=s savedvelmor::v", "savedsearch=s savedvelmor::v",
       {"Unable to find  a saved search s", "Unable to find  a saved search v"}},
      // Source types and indexes are index terms of their own.
      {"sourcetype=x index=main index::other", "sourcetype=x index=main index::other", {}},
      // Nothing named, and names that are not prefixes.
      {"tag:: eventtype=", "tag:: eventtype=", {}},
      {"mytag::x tag!=x", "mytag::x tag!=x", {}},
  });
}

TEST(StringSearchExpander, TokensAreWordsQuotedRunsAndParentheses) {
  std::vector<Str> tokens;
  StringSearchExpander::tokenize("a=\"b c\"(d)  e\t\"x \\\" (y)\" \"\"", tokens);
  EXPECT_EQ(tokens, (std::vector<Str>{"a=\"b c\"", "(", "d", ")", "e", "\"x \\\" (y)\"", "\"\""}));

  Installed none(nullptr, nullptr);
  runCases({
      {"  a   b\n(c)", "a b ( c )", {}},
      {"\"a  b\" x=\"y ( z\"", "\"a  b\" x=\"y ( z\"", {}},
      {"", "", {}},
  });
}

TEST(StringSearchExpander, TagsAndEventTypesResolveOverRounds) {
  Installed fakes(makeResolver(), nullptr);
  runCases({
      // A tag on a named field; a bare value belongs to that field.
      {"tag::host::blue", "( host=\"web3\" OR host=\"web4\" )", {}},
      {"hosttag=blue x", "( host=\"web3\" OR host=\"web4\" ) x", {}},
      // An unqualified tag gathers every field carrying it; the event type
      // it names holds a tag, which a later round resolves.
      {"tag=blue",
       "( host=\"web3\" OR host=\"web4\" OR ( ( host=\"web3\" OR host=\"web4\" ) OR failed ) )", {}},
      {"eventtypetag::admin", "( ( ( host=\"web3\" OR host=\"web4\" ) OR failed ) )", {}},
      // A multi-token term keeps its own parentheses.
      {"eventtype=pair", "( ( code=5 status=bad ) )", {}},
      // A tag naming an event type that does not exist: a term that matches
      // nothing, with no warning.
      {"tag::eventtype::ghosts", "( __no_such_eventtype__::ghost )", {}},
      {"eventtype::empty", "( __no_such_eventtype__::empty )", {}},
      {"tag::source::blue", "tag::source::blue", {"Unable to find tag blue on source"}},
      {"eventtype::nope", "eventtype::nope", {"Unable to find an eventtype nope"}},
      // Source types stand for the ones sharing their tag, once.
      {"sourcetype=apps", "( sourcetype::app OR sourcetype::other )", {}},
      {"sourcetype=app", "( sourcetype::app OR sourcetype::other )", {}},
      {"sourcetype::apps sourcetype=none", "sourcetype::apps sourcetype=none", {}},
  });
}

TEST(StringSearchExpander, CyclesStopAfterTheLastRound) {
  auto r = std::make_shared<FakeResolver>();
  r->known["eventtype:loop"] = {"eventtype::loop"};
  r->known["eventtype:twice"] = {"eventtype::twice", "eventtype::twice"};
  Installed fakes(r, nullptr);
  StringSearchExpander expander;
  std::vector<Str> warnings;

  Str out = expander.expandSearch("eventtype::loop", warnings);
  Str expected = "eventtype::loop";
  for (int i = 0; i < StringSearchExpander::kMaxRounds; ++i) expected = "( " + expected + " )";
  EXPECT_EQ(out, expected);

  // A cycle that doubles the text stops at the size bound, balanced.
  out = expander.expandSearch("eventtype::twice", warnings);
  EXPECT_LE(out.size(), StringSearchExpander::kMaxExpandedBytes);
  EXPECT_GT(out.size(), StringSearchExpander::kMaxExpandedBytes / 4);
  size_t open = 0, close = 0;
  for (char c : out) open += c == '(', close += c == ')';
  EXPECT_EQ(open, close);
  EXPECT_TRUE(warnings.empty());
}

TEST(StringSearchExpander, SavedSearches) {
  auto s = std::make_shared<FakeSaved>();
  s->texts["errs"] = "error fail";
  s->texts["chain"] = "search error | search code=5 | search";
  s->texts["report"] = "error | stats count";
  s->texts["piped"] = "\"a | b\" c";
  s->texts["xml"] = "<search><keys><key>a</key><key>host::b</key></keys></search>";
  s->texts["nested"] = "savedsearch::errs tag::blue";
  s->texts["recent"] = "error daysago=1";
  Installed fakes(nullptr, s);
  runCases({
      {"savedsearch::errs x", "( error fail ) x", {}},
      {"savedvelmor=chain", "( error code=5 )", {}},
      {"savedsearch=report", "savedsearch=report",
       {"Unable to run the saved search report as part of a search as it contains other non search commands. "
        "Please use the savedsearch command."}},
      {"savedsearch::piped", "( \"a | b\" c )", {}},
      {"savedsearch::xml", "( a host::b )", {}},
      {"savedsearch::nested", "( ( error fail ) tag::blue )", {"Unable to find tag blue"}},
      // Time words of a saved search apply within its parentheses.
      {"savedsearch::recent x", "( error _time>=913600.000 _time<1000000.000 ) x", {}},
  });
}

TEST(StringSearchExpander, TimeWordsApplyPerParenthesis) {
  setenv("TZ", "UTC", 1);
  tzset();
  Installed none(nullptr, nullptr);
  runCases({
      {"error daysago=1", "error _time>=913600.000 _time<1000000.000", {}},
      {"starttimeu::100 a", "a _time>=100.000", {}},
      {"( a starttimeu=100 ) b endtimeu=500", "( a _time>=100.000 ) b _time<500.000", {}},
      {"(a (b endtimeu=7) starttimeu=3)", "( a ( b _time<7.000 ) _time>=3.000 )", {}},
      // A later word overrides an earlier one at the same level only.
      {"starttimeu=5 (starttimeu=9) starttimeu=6", "( _time>=9.000 ) _time>=6.000", {}},
      {"starttimeu=100 searchtimespanhours=1", "_time>=100.000 _time<3700.000", {}},
      {"starttime=01/02/1970:00:00:00", "_time>=86400.000", {}},
      {"timeformat=%Y-%m-%d starttime=\"1970-01-03\"", "_time>=172800.000", {}},
      // The format does not leak into another expansion.
      {"starttime=01/01/1970:00:01:00", "_time>=60.000", {}},
      // Words that cannot be used stay as they stand, with a warning.
      {"searchtimespanhours=1 x", "searchtimespanhours=1 x",
       {"searchtimespanhours supplied without or before endtime or starttime"}},
      {"( starttimeu=1 ) searchtimespandays::2", "( _time>=1.000 ) searchtimespandays::2",
       {"searchtimespandays supplied without or before endtime or starttime"}},
      // An unbalanced ")" is left for the tree builder.
      {"a ) daysago=1", "a ) _time>=913600.000 _time<1000000.000", {}},
      // Case matters: these are fields.
      {"DaysAgo=1", "DaysAgo=1", {}},
  });
  // A value the time parser rejects: one warning, the token kept.
  StringSearchExpander expander("", kNow);
  std::vector<Str> warnings;
  EXPECT_EQ(expander.expandSearch("starttime=garbage a", warnings), "starttime=garbage a");
  EXPECT_EQ(warnings.size(), 1u);
}

// What the expansion gives is a search the tree builder takes, with the time
// range where the index can use it.
TEST(StringSearchExpander, ExpandedTextBuildsTheExpectedQuery) {
  static searchtest::ScratchHome home;
  std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/segmenters.conf");
  std::stringstream conf;
  conf << in.rdbuf();
  home.writeConf("segmenters", conf.str());
  home.writeConf("fields", "[host]\nINDEXED = true\n");

  auto s = std::make_shared<FakeSaved>();
  s->texts["recent"] = "error hoursago=1";
  Installed fakes(makeResolver(), s);
  StringSearchExpander expander("", kNow);
  struct IndexCase {
    const char* in;
    const char* index;
  };
  const IndexCase cases[] = {
      {"tag::host::blue error daysago=1", "exact|913600|1000000|AND:|error|NOT:|OR:|host::web3|host::web4"},
      {"savedsearch::recent", "exact|996400|1000000|AND:|error|NOT:|OR:"},
      {"a (b starttimeu=5)", "exact|5|2147483647|AND:|a|b|NOT:|OR:"},
  };
  for (const IndexCase& c : cases) {
    std::vector<Str> warnings;
    Str text = expander.expandSearch(c.in, warnings);
    EXPECT_TRUE(warnings.empty()) << c.in;
    try {
      SearchEvaluator e(text);
      ASSERT_TRUE(e.optimize()) << text;
      EXPECT_EQ(e.toIndexString(), Str(c.index)) << text;
    } catch (const SearchParsingException& ex) {
      ADD_FAILURE() << text << ": " << ex.what();
    }
  }
}

}  // namespace
