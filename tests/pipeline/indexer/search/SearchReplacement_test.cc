// search over a real index: as a filter later in a pipeline (a table of
// expressions against the rows they must keep), the empty search, the
// grammar failures, the streaming form that reads the index directly, the
// unified search paged by the event window with its query id, and the
// "++oldsearch++" hand-over.
#include "pipeline/indexer/search/SearchReplacementProcessor.h"

#include "SearchCommandsFixture.h"
#include "search/SearchFactory.h"
#include "search/StringArg.h"

namespace {

using velmortest::column;
using velmortest::Row;

std::string rawOf(int i) { return "event " + std::to_string(i) + (i % 3 == 0 ? " error disk full" : " ok served"); }

template <typename F>
std::vector<std::string> expected(F keep) {
  std::vector<std::string> out;
  for (int i = 59; i >= 0; --i)
    if (keep(i)) out.push_back(rawOf(i));
  return out;
}

class SearchReplacementTest : public velmortest::SearchCommandsFixture {};

TEST_F(SearchReplacementTest, LaterInAPipelineItKeepsTheMatchingRows) {
  start();
  writeStandardEvents();
  struct Case {
    const char* expr;
    bool (*keep)(int);
  };
  const Case cases[] = {
      {"error", [](int i) { return i % 3 == 0; }},
      {"NOT error", [](int i) { return i % 3 != 0; }},
      {"NOT NOT error", [](int i) { return i % 3 == 0; }},
      {"error host::web-01", [](int i) { return i % 3 == 0 && i % 2 == 0; }},
      {"served host=web-02", [](int i) { return i % 3 != 0 && i % 2 == 1; }},
      {"\"disk full\"", [](int i) { return i % 3 == 0; }},
      {"\"full disk\"", [](int) { return false; }},
      {"event 7", [](int i) { return i == 7; }},
      {"ok OR disk", [](int) { return true; }},
      {"(error OR served) NOT host::web-01", [](int i) { return i % 2 == 1; }},
      {"nosuchword", [](int) { return false; }},
      {"*", [](int) { return true; }},
  };
  for (const Case& c : cases) {
    std::vector<Row> rows = run(std::string("newsearch * | search ") + c.expr);
    EXPECT_EQ(column(rows, "_raw"), expected(c.keep)) << c.expr;
  }
}

TEST_F(SearchReplacementTest, AnEmptySearchWarnsAndGivesNoRows) {
  start();
  writeStandardEvents();
  for (const char* text : {"search NOT *", "newsearch * | search NOT *"}) {
    SearchResultsInfo info;
    std::vector<Row> rows = run(text, info);
    EXPECT_TRUE(rows.empty()) << text;
    EXPECT_TRUE(info.resultsComplete) << text;
    EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN], std::vector<Str>{"Search is empty"}) << text;
  }
}

TEST_F(SearchReplacementTest, GrammarFaultsAreReported) {
  start();
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"search a OR", "Missing RHS for OR"},
      {"search NOT", "NOT requires an argument"},
      {"search NOT OR a", "NOT must not be followed by a binary operator"},
      {"search (a", "unbalanced parentheses"},
      {"search a)", "unbalanced parentheses"},
      {"search = b", "missing LHS for comparison"},
  };
  for (const Case& c : cases) {
    std::string got = failure(c.text);
    EXPECT_NE(got.find(c.error), std::string::npos) << c.text << " -> " << got;
  }
}

TEST_F(SearchReplacementTest, StreamingSearchReadsTheIndexDirectly) {
  start();
  writeStandardEvents();
  SearchResultsInfo info;
  info.streamingSearch = true;
  std::unique_ptr<SearchProcessor> p(SearchParser::parse("search error host::web-01", true));
  std::vector<Row> all;
  for (int round = 0; round < 100; ++round) {
    SearchResults chunk;
    p->execute(chunk, info);
    std::vector<Row> rows = velmortest::rowsOf(chunk);
    all.insert(all.end(), rows.begin(), rows.end());
    if (info.resultsComplete) break;
  }
  EXPECT_TRUE(info.resultsComplete);
  EXPECT_EQ(column(all, "_raw"), expected([](int i) { return i % 3 == 0 && i % 2 == 0; }));
  EXPECT_EQ(info.searchText, "error host::web-01");

  // The expansion's warning reaches the user once, not once per command.
  SearchResultsInfo tagged;
  tagged.streamingSearch = true;
  std::vector<Row> rows = run("search error tag::nosuchtag", tagged);
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(tagged.messages[SearchResultsInfo::MSG_WARN], std::vector<Str>{"Unable to find tag nosuchtag"});

  // Later in a pipeline the flag changes nothing: the rows are filtered.
  SearchResultsInfo later;
  later.streamingSearch = true;
  rows = run("newsearch host::web-02 | search error", later);
  EXPECT_EQ(column(rows, "_raw"), expected([](int i) { return i % 3 == 0 && i % 2 == 1; }));
}

TEST_F(SearchReplacementTest, FirstInPipelinePagesTheUnifiedSearch) {
  start();
  writeStandardEvents();
  std::unique_ptr<SearchProcessor> p(SearchParser::parse("search error queryid::q-page-1", true));
  SearchResultsInfo info;
  info.firstEvent = 0;
  info.lastEvent = 4;
  SearchResults page;
  p->execute(page, info);
  EXPECT_EQ(info.queryId, "q-page-1");
  std::vector<std::string> errors = expected([](int i) { return i % 3 == 0; });
  EXPECT_EQ(column(velmortest::rowsOf(page), "_raw"), std::vector<std::string>(errors.begin(), errors.begin() + 5));

  SearchResultsInfo next;
  next.firstEvent = 5;
  next.lastEvent = 9;
  SearchResults second;
  p->execute(second, next);
  EXPECT_EQ(column(velmortest::rowsOf(second), "_raw"),
            std::vector<std::string>(errors.begin() + 5, errors.begin() + 10));

  // No window: every event, and the run has finished.
  std::unique_ptr<SearchProcessor> whole(SearchParser::parse("search error", true));
  SearchResultsInfo info2;
  SearchResults rows;
  whole->execute(rows, info2);
  EXPECT_TRUE(info2.resultsComplete);
  EXPECT_EQ(column(velmortest::rowsOf(rows), "_raw"), errors);
  EXPECT_FALSE(info2.queryId.empty());
}

TEST(SearchReplacementQueryId, QueryIdTermIsFoundAndTakenOut) {
  struct Case {
    const char* text;
    const char* id;
    const char* rest;
  };
  const Case cases[] = {
      {"error queryid::q1 host::a", "q1", "error host::a"},
      {"queryid::abc", "abc", ""},
      {"error queryid::q2", "q2", "error"},
      {"error myqueryid::q3", "", "error myqueryid::q3"},
      {"error", "", "error"},
  };
  for (const Case& c : cases) {
    Str rest;
    EXPECT_EQ(SearchReplacementProcessor::findQueryId(c.text, &rest), c.id) << c.text;
    EXPECT_EQ(rest, c.rest) << c.text;
  }
}

// Stands in for an old search command: one row with its argument text,
// and a warning.
class FakeOldSearch : public SearchProcessor {
 public:
  explicit FakeOldSearch(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new FakeOldSearch(n); }
  void processArguments() override { getNextArgs(_words, true); }
  void execute(SearchResults& results, SearchResultsInfo& info) override {
    Str text;
    for (const Str& w : _words) text += (text.empty() ? "" : " ") + w;
    results.addNewResult()->setValue(results.keyIndex("_raw", true), text);
    info.addWarning("from the old search");
  }

 private:
  std::vector<Str> _words;
};

TEST_F(SearchReplacementTest, OldSearchMarkHandsTheRestToTheOldCommand) {
  start();
  std::string got = failure("search ++oldsearch++ foo bar");
  EXPECT_NE(got.find("no command 'oldsearch' is registered"), std::string::npos) << got;

  SearchFactory::registerProcessor("oldsearch", &FakeOldSearch::create, false);
  SearchResultsInfo info;
  std::vector<Row> rows = run("search ++oldsearch++ foo bar", info);
  SearchFactory::unregister("oldsearch");
  EXPECT_EQ(column(rows, "_raw"), std::vector<std::string>{"foo bar"});
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO], std::vector<Str>{"from the old search"});
  EXPECT_FALSE(info.messages.count(SearchResultsInfo::MSG_WARN));
}

}  // namespace
