// Subsearches: the job directory naming, the first runner that leaves
// status.csv and results.csv, the second reader that waits on them, and the
// conversion of rows into the replacing argument.
#include <gtest/gtest.h>

#include <memory>

#include "search/ProcessorArg.h"
#include "search/ResultsArg.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchResultsInfo.h"
#include "SearchTestUtil.h"
#include "search/StringArg.h"
#include "search/Subsearch.h"
#include "util/Hash.h"
#include "util/MainThread.h"

namespace {

// "rows <field> <v1> <v2>...": one row per value.
struct Rows : SearchProcessor {
  explicit Rows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new Rows(n); }
  void processArguments() override { getNextArgs(words, false); }
  void execute(SearchResults& r, SearchResultsInfo&) override {
    for (size_t i = 1; i < words.size(); ++i) r.addNewResult()->setValue(r.keyIndex(words[0], true), words[i]);
  }
  std::vector<Str> words;
};

struct Fail : SearchProcessor {
  explicit Fail(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new Fail(n); }
  void execute(SearchResults&, SearchResultsInfo&) override { throw SearchProcessorException("sub failed"); }
};

class SubsearchTest : public ::testing::Test {
 protected:
  // Subsearches run on threads of their own, which need a main thread.
  static void SetUpTestSuite() { static MainThread mainThread; }
  void SetUp() override {
    SearchFactory::registerBuiltin("rows", &Rows::create, false);
    SearchFactory::registerBuiltin("fail", &Fail::create, false);
    Subsearch::setDispatchRoot(home.path() / "var/run/velmor/dispatch");
  }
  void TearDown() override { Subsearch::setDispatchRoot(Pathname()); }

  ProcessorArg* parsed(const Str& text) {
    SearchProcessor* p = SearchParser::parse(text, true);
    p->setLitSearch(text);
    return new ProcessorArg(p);
  }

  searchtest::ScratchHome home;
};

TEST_F(SubsearchTest, JobIdIsQueryIdAndDecimalHash) {
  EXPECT_EQ(Subsearch::jobId("q1", "rows a x"), "q1_" + ToString(static_cast<unsigned long long>(djb2_hash("rows a x"))));
  EXPECT_NE(Subsearch::jobId("q1", "rows a x"), Subsearch::jobId("q1", "rows a y"));
  EXPECT_NE(Subsearch::jobId("q1", "rows a x"), Subsearch::jobId("q2", "rows a x"));
}

TEST_F(SubsearchTest, RowsBecomeSearchTextAndJobFilesStay) {
  SearchResultsInfo info;
  info.queryId = "q";
  std::unique_ptr<ProcessorArg> arg(parsed("rows host a b"));
  std::unique_ptr<Arg> out(Subsearch::run(*arg, false, info));
  ASSERT_EQ(out->type, Arg::STRING);
  EXPECT_EQ(out->toString(0), "( ( host=\"a\" ) OR ( host=\"b\" ) )");
  Pathname dir = Subsearch::dispatchRoot() / Subsearch::jobId("q", "rows host a b");
  EXPECT_TRUE((dir / "status.csv").exists());
  EXPECT_TRUE((dir / "results.csv").exists());

  // A second run finds the directory and reads the same rows back.
  std::unique_ptr<ProcessorArg> again(parsed("rows host a b"));
  std::unique_ptr<Arg> out2(Subsearch::run(*again, true, info));
  ASSERT_EQ(out2->type, Arg::RESULTS);
  EXPECT_EQ(searchtest::rowsOf(*static_cast<ResultsArg*>(out2.get())->getResults()).size(), 2u);
}

TEST_F(SubsearchTest, QueryFieldAndEmptyRows) {
  SearchResultsInfo info;
  info.queryId = "q";
  std::unique_ptr<ProcessorArg> a(parsed("rows _query \"x OR y\" ignored"));
  std::unique_ptr<Arg> out(Subsearch::run(*a, false, info));
  EXPECT_EQ(out->toString(0), "x OR y");
  std::unique_ptr<ProcessorArg> none(parsed("rows host"));
  std::unique_ptr<Arg> empty(Subsearch::run(*none, false, info));
  EXPECT_EQ(empty->toString(0), "");
}

TEST_F(SubsearchTest, FailureIsRecordedForSecondReaders) {
  SearchResultsInfo info;
  info.queryId = "q";
  std::unique_ptr<ProcessorArg> a(parsed("fail"));
  try {
    std::unique_ptr<Arg> out(Subsearch::run(*a, false, info));
    FAIL() << "no error";
  } catch (const SearchProcessorException& e) {
    EXPECT_STREQ(e.what(), "sub failed");
  }
  // The status row carries the error; a second reader reports it at once.
  std::unique_ptr<ProcessorArg> b(parsed("fail"));
  try {
    std::unique_ptr<Arg> out(Subsearch::run(*b, false, info));
    FAIL() << "no error";
  } catch (const SearchProcessorException& e) {
    EXPECT_STREQ(e.what(), "sub failed");
  }
}

TEST_F(SubsearchTest, SecondReaderStatusFailures) {
  Pathname dir = home.path() / "job";
  dir.mkdir_p();
  SearchResults out;
  // A done status without results is an unknown failure.
  {
    SearchResults st;
    searchtest::addRows(st, {{{"done", "1"}, {"error", ""}}});
    st.toCSV(dir / "status.csv");
  }
  try {
    Subsearch::waitForResults(dir, 5, out);
    FAIL();
  } catch (const SearchProcessorException& e) {
    EXPECT_STREQ(e.what(), "Unknown subsearch failure");
  }
  // Two status rows are an unknown failure too.
  {
    SearchResults st;
    searchtest::addRows(st, {{{"done", "0"}}, {{"done", "0"}}});
    st.toCSV(dir / "status.csv");
  }
  EXPECT_THROW(Subsearch::waitForResults(dir, 5, out), SearchProcessorException);
  // Without status or results, the wait times out.
  (dir / "status.csv").remove();
  try {
    Subsearch::waitForResults(dir, 0, out);
    FAIL();
  } catch (const SearchProcessorException& e) {
    EXPECT_STREQ(e.what(), "Timed out (0 secs) waiting for subsearch results.");
  }
}

TEST_F(SubsearchTest, EvalArgsReplacesSubsearchInCommandArguments) {
  std::unique_ptr<SearchProcessor> p(SearchParser::parse("rows f [rows host a] z", true));
  SearchResultsInfo info;
  info.queryId = "q2";
  SearchResults r;
  p->execute(r, info);
  auto* first = static_cast<SearchPipeline*>(p.get())->getProcessors().front();
  EXPECT_EQ(first->getSearchString(), "f ( ( host=\"a\" ) ) z");
}

}  // namespace
