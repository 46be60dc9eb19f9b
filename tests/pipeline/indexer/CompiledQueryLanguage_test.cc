// The query compiler: the language definition file and its errors, the
// texts that fail to compile and their messages, and the modules that a
// query text turns into, per control and in order. Also checks that the
// shipped etc/searchLanguage.xml compiles, that every module it names has a
// class, and that every keyword has help.
#include "pipeline/indexer/CompiledQueryLanguage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"

namespace {

const Str kShipped = VELMOR_SOURCE_DIR "/etc/searchLanguage.xml";

// "SEARCH: domainFinder(index=main) _term(foo) | GET: eventGetter(events=0-9)"
Str describe(Query& q) {
  Str out;
  for (const Str& control : Query::controlOrder()) {
    const auto& list = q.modules(control);
    if (list.empty()) continue;
    if (!out.empty()) out += " | ";
    out += control + ":";
    for (const auto& m : list) {
      out += " " + m->getName() + "(";
      if (m->getName() == "_term") {
        out += m->getArg("_term");
      } else {
        std::set<Str> args;
        for (const auto& [k, v] : m->getArgs()) args.insert(k + "=" + v);
        bool first = true;
        for (const Str& a : args) {
          if (!first) out += ",";
          out += a;
          first = false;
        }
      }
      out += ")";
    }
  }
  return out;
}

class CompiledQueryLanguageTest : public ::testing::Test {
 protected:
  void SetUp() override { lang().compileLanguage(kShipped); }
  void TearDown() override { lang().compileLanguage(kShipped); }

  static CompiledQueryLanguage& lang() { return CompiledQueryLanguage::getInstance(); }

  static std::shared_ptr<Query> compile(const Str& text, bool whole = false) {
    auto q = std::make_shared<Query>(text, "admin", "", "");
    lang().compile(q, true, whole);
    return q;
  }
  // The message of the compile failure, or "" when it compiled.
  static Str failure(const Str& text, bool whole = false) {
    try {
      compile(text, whole);
    } catch (const QueryParseException& e) {
      return e.what();
    }
    return "";
  }
  // The message of a language definition failure, or "" when it loaded.
  static Str languageFailure(const Str& xml) {
    try {
      lang().compileLanguageText(xml, "test.xml");
    } catch (const LanguageParseException& e) {
      return e.what();
    }
    return "";
  }
};

TEST_F(CompiledQueryLanguageTest, ShippedLanguageNamesOnlyRegisteredModules) {
  std::vector<Str> names = lang().getModuleNames();
  EXPECT_GE(names.size(), 40u);
  for (const Str& n : names) EXPECT_TRUE(lang().hasFactory(n)) << n;
  // And every factory name of the table is used by the file.
  for (const auto& [name, factory] : CompiledQueryLanguage::factoryTable())
    EXPECT_TRUE(std::find(names.begin(), names.end(), Str(name)) != names.end()) << name;
  EXPECT_TRUE(lang().getUseAdvancedQuery());
}

TEST_F(CompiledQueryLanguageTest, EveryKeywordHasHelp) {
  size_t keywords = 0;
  for (const char* control : {"SEARCH", "GET", "OUTPUT"})
    for (const Str& k : lang().getKeywords(control)) {
      ++keywords;
      auto found = lang().getHelp(k);
      ASSERT_FALSE(found.empty()) << k;
      for (const auto& [c, def] : found) EXPECT_FALSE(def->helpText.empty()) << k << " in " << c;
    }
  EXPECT_GT(keywords, 60u);
  // "events" is known to two controls, each with its own module.
  auto events = lang().getHelp("events");
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].first, "GET");
  EXPECT_EQ(events[0].second->name, "eventGetter");
  EXPECT_EQ(events[1].first, "OUTPUT");
  EXPECT_EQ(events[1].second->name, "raweventsOut");
  EXPECT_TRUE(lang().getHelp("nosuchkeyword").empty());
}

TEST_F(CompiledQueryLanguageTest, TypeaheadDefaultsComeFromTheFile) {
  EXPECT_EQ(lang().getDefaultForArg("SEARCH", "readlevel"), "typeahead_suppress");
  EXPECT_EQ(lang().getDefaultForArg("SEARCH", "sourcetype"), "");
  EXPECT_EQ(lang().getDefaultForArg("GET", "readlevel"), "");
}

TEST_F(CompiledQueryLanguageTest, ModulesPerControlInOrder) {
  struct Case {
    const char* text;
    const char* modules;
  };
  const Case cases[] = {
      {"SEARCH foo", "SEARCH: domainFinder(index=main) _term(foo)"},
      {"SEARCH foo OUTPUT velmorui::2.1",
       "SEARCH: domainFinder(index=main) _term(foo) | OUTPUT: velmorUIOut(velmorui=2.1)"},
      {"SEARCH foo index::other bar", "SEARCH: domainFinder(index=other) _term(foo) _term(bar)"},
      // The same pair again in one parenthesis is consumed once; another
      // value builds a second index module, after the first.
      {"SEARCH index::a foo index::a", "SEARCH: domainFinder(index=a) _term(foo)"},
      {"SEARCH index::a foo index::b", "SEARCH: domainFinder(index=a) domainFinder(index=b) _term(foo)"},
      {"SEARCH sourcetype::x ( sourcetype::x ) sourcetype::x",
       "SEARCH: domainFinder(index=main) sourcetypeResolver(sourcetype=x) _term(() "
       "sourcetypeResolver(sourcetype=x) _term())"},
      {"SEARCH host=web1 status!=500", "SEARCH: domainFinder(index=main) _term(host::web1) _term(NOT) _term(status::500)"},
      {"SEARCH \"a=b c\" d", "SEARCH: domainFinder(index=main) _term(a=b c) _term(d)"},
      {"SEARCH (foo OR bar)", "SEARCH: domainFinder(index=main) _term(() _term(foo) _term(OR) _term(bar) _term())"},
      {"SEARCH foo(bar) \\(baz", "SEARCH: domainFinder(index=main) _term(foo(bar)) _term((baz)"},
      {"SEARCH nokeyword::x", "SEARCH: domainFinder(index=main) _term(nokeyword::x)"},
      // A time format given once reaches the first time module; each time
      // keyword has its own.
      {"SEARCH starttime::1 endtime::2 timeformat::%s",
       "SEARCH: domainFinder(index=main) time(starttime=1,timeformat=%s) time(endtime=2)"},
      {"SEARCH maxresults::5 maxevents::6", "SEARCH: domainFinder(index=main) countSetter(maxevents=6,maxresults=5)"},
      {"SEARCH order::desc sort::host", "SEARCH: domainFinder(index=main) sortmeta(order=desc,sort=host)"},
      {"SEARCH surrounding::1:2 maxtimeafter::5 maxtimebefore::3",
       "SEARCH: domainFinder(index=main) surrounding(maxtimeafter=5,maxtimebefore=3,surrounding=1:2)"},
      {"SEARCH tag::host::prod", "SEARCH: domainFinder(index=main) eventtypeResolver(tag=host::prod)"},
      {"SEARCH a GET events::0-9 summarize::yes hosts::0-5 OUTPUT velmorui::2.2 format::raw",
       "SEARCH: domainFinder(index=main) _term(a) | GET: eventGetter(events=0-9,summarize=yes) "
       "hostGetter(hosts=0-5) | OUTPUT: velmorUIOut(format=raw,velmorui=2.2)"},
      {"GET help::index", "GET: helpGetter(help=index)"},
      {"SEARCH", "SEARCH: domainFinder(index=main)"},
      {"", ""},
      // A control word again adds to its control.
      {"SEARCH a GET help::x SEARCH b", "SEARCH: domainFinder(index=main) _term(a) _term(b) | GET: helpGetter(help=x)"},
  };
  for (const Case& c : cases) {
    std::shared_ptr<Query> q;
    try {
      q = compile(c.text);
    } catch (const std::exception& e) {
      ADD_FAILURE() << c.text << ": " << e.what();
      continue;
    }
    EXPECT_EQ(describe(*q), c.modules) << c.text;
  }
}

TEST_F(CompiledQueryLanguageTest, WholeStringIsSearchHasNoControlWords) {
  EXPECT_EQ(describe(*compile("error GET events::0-1", true)),
            "SEARCH: domainFinder(index=main) _term(error) _term(GET) _term(events::0-1)");
  EXPECT_EQ(describe(*compile("", true)), "SEARCH: domainFinder(index=main)");
  EXPECT_EQ(failure("error", false), "Found token with no control 'error'");
}

TEST_F(CompiledQueryLanguageTest, SearchEchoForTheHistoryRecord) {
  auto q = compile("SEARCH error user::bob \"a b\" GET events::0-1");
  EXPECT_EQ(q->searchEcho(), "\"error\" \"searchuser::bob\" \"a b\" ");
  // Compiling again replaces what the last compile made.
  lang().compile(q, true, false);
  EXPECT_EQ(q->searchEcho(), "\"error\" \"searchuser::bob\" \"a b\" ");
  EXPECT_EQ(q->modules("GET").size(), 1u);
}

TEST_F(CompiledQueryLanguageTest, CompileErrors) {
  struct Case {
    const char* text;
    const char* message;
  };
  const Case cases[] = {
      {"foo", "Found token with no control 'foo'"},
      {"foo SEARCH bar", "Found token with no control 'foo'"},
      {"GET foo", "Unrecognized token : foo"},
      {"SEARCH a OUTPUT raw", "Unrecognized token : raw"},
      {"GET bogus::1", "Unrecognized argument bogus in GET"},
      {"OUTPUT format::raw", "Unrecognized argument format in OUTPUT"},  // an argument without its module
      {"SEARCH a timeformat::%Y", "Unrecognized argument timeformat in SEARCH"},
      {"SEARCH a GET summarize::yes", "Unrecognized argument summarize in GET"},
      {"SEARCH surrounding::x maxtimebefore::5", "Unable to find required arg 'maxtimeafter' for module surrounding"},
      {"SEARCH maxtimebefore::5", "Unable to find required arg 'surrounding' for module surrounding"},
      {"SEARCH \"foo", " unable to parse search string. Expected \", got end of input"},
      {"SEARCH a GET help::\"x", " unable to parse search string. Expected \", got end of input"},
  };
  for (const Case& c : cases) EXPECT_EQ(failure(c.text), c.message) << c.text;
}

TEST_F(CompiledQueryLanguageTest, ModuleWithoutAClass) {
  ASSERT_EQ(languageFailure("<l><controls><control><token>SEARCH</token><modules>"
                            "<module><name>_term</name><requiredArgs><arg>_term</arg></requiredArgs></module>"
                            "<module><name>domainFinder</name><requiredArgs><arg>index</arg></requiredArgs></module>"
                            "<module><name>noSuchModule</name><requiredArgs><arg>x</arg></requiredArgs></module>"
                            "</modules></control></controls></l>"),
            "");
  EXPECT_EQ(failure("SEARCH x::1"), "Unable to find a module for noSuchModule  in SEARCH");
  EXPECT_EQ(failure("SEARCH y::1"), "");  // not a keyword here: a term
}

TEST_F(CompiledQueryLanguageTest, LanguageFileErrors) {
  struct Case {
    const char* xml;
    const char* message;
  };
  const Case cases[] = {
      {"<l/>", "Unable to find required <controls> in test.xml"},
      {"<l><options/></l>", "Unable to find required <controls> in test.xml"},
      {"<l><controls><control><modules/></control></controls></l>", "Unable to find required <token> in control"},
      {"<l><controls><control><token>SORT</token><modules/></control></controls></l>", "Unknown control 'SORT' found"},
      {"<l><controls><control><token>search</token><modules/></control></controls></l>",
       "Unknown control 'search' found"},
      {"<l><controls><control><token>GET</token></control></controls></l>",
       "Unable to find required <modules> in control"},
      {"<l><controls><control><token>GET</token><modules><module><helptext>h</helptext></module></modules>"
       "</control></controls></l>",
       "Unable to find required <name> in module"},
      {"<l><controls><control><token>GET</token><modules>"
       "<module><name>a</name><optionalArgs><arg>x</arg></optionalArgs></module>"
       "<module><name>b</name><requiredArgs><arg>x</arg></requiredArgs></module>"
       "</modules></control></controls></l>",
       "Argument 'x' defines both a and b in control GET"},
      {"<l><options><useAdvancedQueryNode>maybe</useAdvancedQueryNode></options><controls/></l>",
       "Invalid value 'maybe' for <useAdvancedQueryNode> in test.xml"},
  };
  for (const Case& c : cases) EXPECT_EQ(languageFailure(c.xml), c.message) << c.xml;

  EXPECT_EQ(languageFailure("<l><controls>").rfind("Unable to parse search language definition test.xml: ", 0), 0u);
  try {
    lang().compileLanguage("/nonexistent/searchLanguage.xml");
    FAIL();
  } catch (const LanguageParseException& e) {
    EXPECT_STREQ(e.what(), "Could not find search language definition at /nonexistent/searchLanguage.xml");
  }
  // A failed load keeps the language that was there.
  EXPECT_EQ(describe(*compile("SEARCH a")), "SEARCH: domainFinder(index=main) _term(a)");
}

TEST_F(CompiledQueryLanguageTest, AdvancedQueriesOptionAndOptionalArgsDefine) {
  ASSERT_EQ(languageFailure("<l><options><useAdvancedQueryNode>false</useAdvancedQueryNode></options><controls>"
                            "<control><token>SEARCH</token><modules>"
                            "<module><name>countSetter</name><optionalArgs><arg>maxresults</arg><arg>maxevents</arg>"
                            "</optionalArgs></module>"
                            "</modules></control></controls></l>"),
            "");
  EXPECT_FALSE(lang().getUseAdvancedQuery());
  EXPECT_EQ(Query("x", "u", "", "").stateMachine().getOptimize(), false);
  // Without optional-free required args, each optional one defines the module.
  EXPECT_EQ(describe(*compile("SEARCH maxevents::3")), "SEARCH: domainFinder(index=main) countSetter(maxevents=3)");
  // No "_term" module in this language: terms still become term modules.
  EXPECT_EQ(describe(*compile("SEARCH a")), "SEARCH: domainFinder(index=main) _term(a)");
  lang().compileLanguage(kShipped);
  EXPECT_TRUE(lang().getUseAdvancedQuery());
}

TEST(CompiledQueryLanguage, XmlEscapeKeepsTheDocumentWellFormed) {
  EXPECT_EQ(CompiledQueryLanguage::xmlEscape("a<b>&\"c\""), "a&lt;b&gt;&amp;&quot;c&quot;");
  EXPECT_EQ(CompiledQueryLanguage::xmlEscape(StrSegment("t\x01\tx\n", 5)), "t?\tx\n");
  EXPECT_EQ(CompiledQueryLanguage::xmlEscape("caf\xc3\xa9"), "caf\xc3\xa9");
  EXPECT_EQ(CompiledQueryLanguage::xmlEscape("bad\xff\xc3"), "bad??");
}

}  // namespace
