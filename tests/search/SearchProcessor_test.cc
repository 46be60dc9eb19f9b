// Argument tokenizing and readers, the dispatch conventions, and the
// pipeline contract (argument evaluation, cancel between commands, failure
// conversion).
#include <gtest/gtest.h>

#include <memory>

#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchPIDs.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "SearchTestUtil.h"

namespace {

TEST(TokenizeString, Table) {
  struct Case {
    const char* in;
    std::vector<Str> tokens;
    std::vector<bool> quoted;
    bool closed;
  } cases[] = {
      {"a b,c", {"a", "b", "c"}, {false, false, false}, true},
      {"  a ,, b  ", {"a", "b"}, {false, false}, true},
      {"a\tb\nc", {"a\tb\nc"}, {false}, true},
      {"\"a b\" c", {"a b", "c"}, {true, false}, true},
      {"\"\" x", {"", "x"}, {true, false}, true},
      {"\"ab\"cd", {"abcd"}, {false}, true},
      {"ab\"c d\"", {"abc d"}, {false}, true},
      {"a\\\"b", {"a\"b"}, {false}, true},
      {"a\\\\b", {"a\\b"}, {false}, true},
      {"a\\nb", {"a\\nb"}, {false}, true},
      {"\"a\\\"b\"", {"a\"b"}, {true}, true},
      {"x=\"1, 2\"", {"x=1, 2"}, {false}, true},
      {"\"open, here", {"open, here"}, {true}, false},
  };
  for (const Case& c : cases) {
    std::vector<Str> tokens;
    std::vector<bool> quoted;
    bool closed = SearchProcessor::tokenizeString(c.in, tokens, quoted, ", ");
    EXPECT_EQ(tokens, c.tokens) << c.in;
    EXPECT_EQ(quoted, c.quoted) << c.in;
    EXPECT_EQ(closed, c.closed) << c.in;
  }
}

TEST(StringArgOption, NameAndValue) {
  struct Case {
    const char* text;
    bool quoted;
    bool option;
    const char* name;
    const char* value;
  } cases[] = {
      {"a=b", false, true, "a", "b"},
      {"a::b=c", false, true, "a", "b=c"},
      {"a=b::c", false, true, "a", "b::c"},
      {"=x", false, true, "", "x"},
      {"a=b", true, false, "", ""},
      {"plain", false, false, "", ""},
  };
  for (const Case& c : cases) {
    StringArg a(c.text, c.quoted, true);
    EXPECT_EQ(a.isOption(), c.option) << c.text;
    EXPECT_EQ(a.getOptionName(), c.name) << c.text;
    EXPECT_EQ(a.getOptionValue(), c.value) << c.text;
  }
}

// A command whose arguments are tokenized from one text.
class Cmd : public SearchProcessor {
 public:
  explicit Cmd(const Str& text) : SearchProcessor("cmd") {
    addArgument(new StringArg(text, false, false));
    parseArguments();
  }
};

Str errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const SearchProcessorException& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(OptionReaders, ValuesAndFailures) {
  {
    Cmd c("x Limit=4 flag=YES ratio=0.5 n=-3 name=\"a b\"");
    long limit = 0;
    bool flag = false;
    double ratio = 0;
    int n = 0;
    Str name;
    EXPECT_TRUE(c.getOption("limit", limit));
    EXPECT_TRUE(c.getOption("flag", flag));
    EXPECT_TRUE(c.getOption("ratio", ratio));
    EXPECT_TRUE(c.getOption("n", n));
    EXPECT_TRUE(c.getOption("name", name));
    EXPECT_EQ(limit, 4);
    EXPECT_TRUE(flag);
    EXPECT_EQ(ratio, 0.5);
    EXPECT_EQ(n, -3);
    EXPECT_EQ(name, "a b");
    long absent = 7;
    EXPECT_FALSE(c.getOption("absent", absent));
    EXPECT_EQ(absent, 7);
    // Only the plain word is left, and it is refused by name.
    EXPECT_EQ(errorOf([&] { c.refuseLeftovers(); }), "Error in 'cmd' command: Invalid argument: 'x'");
  }
  struct Case {
    const char* args;
    const char* kind;  // which reader
    const char* msg;
  } cases[] = {
      {"limit=4 limit=5", "long", "Error in 'cmd' command: Option 'limit' specified more than once"},
      {"top=maybe", "bool", "Error in 'cmd' command: Invalid boolean value for option 'top'"},
      {"n=3x", "long", "Error in 'cmd' command: Invalid integer value for option 'n'"},
      {"n=", "long", "Error in 'cmd' command: Invalid integer value for option 'n'"},
      {"n=-1", "ulong", "Error in 'cmd' command: Invalid non-negative integer value for option 'n'"},
      {"n=-0", "ulong", "(no error)"},
      {"n=abc", "double", "Error in 'cmd' command: Invalid numerical value for option 'n'"},
      {"n=99999999999", "int", "Error in 'cmd' command: Invalid integer value for option 'n'"},
  };
  for (const Case& k : cases) {
    Cmd c(k.args);
    Str kind = k.kind;
    Str msg = errorOf([&] {
      Str name = Str(k.args).substr(0, Str(k.args).find('='));
      if (kind == "long") {
        long v;
        c.getOption(name, v);
      } else if (kind == "ulong") {
        unsigned long v;
        c.getOption(name, v);
      } else if (kind == "int") {
        int v;
        c.getOption(name, v);
      } else if (kind == "double") {
        double v;
        c.getOption(name, v);
      } else {
        bool v;
        c.getOption(name, v);
      }
    });
    EXPECT_EQ(msg, k.msg) << k.args;
  }
}

TEST(PositionalReaders, KeywordsFieldsAndStopWords) {
  Cmd c("count BY host, source opt=1 over x");
  EXPECT_FALSE(c.isNextKeyword("by"));
  Str w;
  EXPECT_EQ(c.getNextNonOpt(w, true), 0u);
  EXPECT_EQ(w, "count");
  EXPECT_TRUE(c.isNextKeyword("by"));  // case ignored
  std::set<Str> fields;
  EXPECT_TRUE(c.getFieldSet(fields, "OVER", true));
  EXPECT_EQ(fields, (std::set<Str>{"host", "source"}));
  // The skipped option now stands before the stop word.
  EXPECT_FALSE(c.isNextKeyword("over"));
  EXPECT_EQ(c.getNextArg(w, false), 4u);
  EXPECT_EQ(w, "opt=1");
  EXPECT_EQ(errorOf([&] { c.getNextNonOpt(w, false); }), "Error in 'cmd' command: Invalid option 'opt=1'");
  long opt = 0;
  EXPECT_TRUE(c.getOption("OPT", opt));
  EXPECT_TRUE(c.isNextKeyword("over"));
  std::vector<Str> rest;
  EXPECT_FALSE(c.getNextArgs(rest, true));
  EXPECT_EQ(rest, (std::vector<Str>{"x"}));
  EXPECT_EQ(c.nextArgIndex(), c.getArguments().size());
  EXPECT_FALSE(c.hasUnusedArg());

  Cmd d("a b a");
  std::set<Str> f2;
  EXPECT_EQ(errorOf([&] { d.getFieldSet(f2); }), "Error in 'cmd' command: Field 'a' specified multiple times");
  Cmd e("a \"\"");
  std::set<Str> f3;
  EXPECT_EQ(errorOf([&] { e.getFieldSet(f3); }), "Error in 'cmd' command: Field names must not be empty strings");
  Cmd g("a k=v b");
  std::vector<Str> words;
  EXPECT_TRUE(g.getNextArgs(words, false));  // true: an option was skipped
  EXPECT_EQ(words, (std::vector<Str>{"a", "b"}));
}

// Records the calling convention the dispatcher used.
class Probe : public SearchProcessor {
 public:
  Probe(bool s, bool t) : SearchProcessor("probe"), streamable(s), transforming(t) {}
  bool isStreamable() const override { return streamable; }
  bool isTransforming() const override { return transforming; }
  void execute(SearchResults& r, SearchResultsInfo&) override {
    calls += "E" + ToString(static_cast<unsigned long>(r.size()));
  }
  void execute_input(SearchResults& r, SearchResultsInfo&) override {
    calls += "I" + ToString(static_cast<unsigned long>(r.size()));
    seen += r.size();
  }
  void execute_output(SearchResults& r, SearchResultsInfo&) override {
    calls += "O" + ToString(static_cast<unsigned long>(r.size()));
    SearchResult* row = r.addNewResult();
    row->setValue(r.keyIndex("total", true), ToString(static_cast<unsigned long>(seen)));
  }
  bool streamable, transforming;
  Str calls;
  size_t seen = 0;
};

void addRows(SearchResults& r, int n) {
  sr_index_t k = r.keyIndex("v", true);
  for (int i = 0; i < n; ++i) r.addNewResult()->setValue(k, ToString(i));
}

TEST(ExecuteDispatch, FourConventionsInMemory) {
  struct Case {
    bool s, t;
    const char* calls;
    size_t rowsAfter;
  } cases[] = {
      {false, false, "E3", 3},
      {true, false, "E3", 3},
      {false, true, "I3O0", 1},
      {true, true, "E3", 3},
  };
  for (const Case& c : cases) {
    SearchResults r;
    addRows(r, 3);
    SearchResultsInfo info;
    Probe p(c.s, c.t);
    p.execute_dispatch(r, info);
    EXPECT_EQ(p.calls, c.calls) << c.s << c.t;
    EXPECT_EQ(r.size(), c.rowsAfter) << c.s << c.t;
  }
}

TEST(ExecuteDispatch, SpilledRowsRunPerFile) {
  searchtest::ScratchHome home;  // spill files are written through its var/run/velmor
  struct Case {
    bool s, t;
    const char* calls;
    size_t rowsAfter;
    bool filesAfter;
  } cases[] = {
      {true, false, "E2E3", 0, true},   // once per chunk, files kept
      {true, true, "E2E3", 0, true},
      {false, true, "I2I3O0", 1, false},  // fed chunk by chunk, then one output
  };
  for (const Case& c : cases) {
    SearchResults r;
    for (int n : {2, 3}) {
      SearchResults chunk;
      addRows(chunk, n);
      Pathname f = home.path() / ("chunk" + std::to_string(n) + ".csv");
      ASSERT_GT(chunk.toCSV(f), 0u);
      r.addFile(f);
    }
    SearchResultsInfo info;
    Probe p(c.s, c.t);
    p.execute_dispatch(r, info);
    EXPECT_EQ(p.calls, c.calls) << c.s << c.t;
    EXPECT_EQ(r.hasFiles(), c.filesAfter) << c.s << c.t;
    if (c.t && !c.s) {
      EXPECT_EQ(r.size(), c.rowsAfter);
      EXPECT_EQ(p.seen, 5u);
    }
  }
}

class PipelineTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    SearchFactory::registerBuiltin("addrows", &AddRows::create, false);
    SearchFactory::registerBuiltin("cancelme", &CancelMe::create, false);
    SearchFactory::registerBuiltin("throwstd", &ThrowStd::create, false);
    SearchFactory::registerBuiltin("badarg", &BadArg::create, false);
    SearchFactory::registerBuiltin("keepfirst", &KeepFirst::create, false);
  }
  struct AddRows : SearchProcessor {
    explicit AddRows(const Str& n) : SearchProcessor(n) {}
    static SearchProcessor* create(const Str& n) { return new AddRows(n); }
    void processArguments() override {
      Str w;
      getNextNonOpt(w, true);
      count = static_cast<int>(w.toLong(1));
      refuseLeftovers();
    }
    void execute(SearchResults& r, SearchResultsInfo& info) override {
      firstFlags += info.firstInPipeline ? "T" : "F";
      windows += Str::fromFormat("%d,%d;", info.firstEvent, info.lastEvent);
      addRows(r, count);
    }
    int count = 1;
    static inline Str firstFlags;
    static inline Str windows;  // the event window each run saw
  };
  // Keeps the first n rows, saying so through inputRowLimit (n <= 0: all).
  struct KeepFirst : SearchProcessor {
    explicit KeepFirst(const Str& n) : SearchProcessor(n) {}
    static SearchProcessor* create(const Str& n) { return new KeepFirst(n); }
    void processArguments() override {
      Str w;
      getNextNonOpt(w, true);
      limit = w.toLong(0);
      refuseLeftovers();
    }
    long inputRowLimit() const override { return limit > 0 ? limit : -1; }
    void execute(SearchResults& r, SearchResultsInfo&) override {
      while (limit > 0 && r.size() > size_t(limit)) {
        delete r.back();
        r.pop_back();
      }
    }
    long limit = 0;
  };
  struct CancelMe : SearchProcessor {
    explicit CancelMe(const Str& n) : SearchProcessor(n) {}
    static SearchProcessor* create(const Str& n) { return new CancelMe(n); }
    void execute(SearchResults&, SearchResultsInfo& info) override { SearchCancel::instance()->stop(info.cancelId); }
  };
  struct ThrowStd : SearchProcessor {
    explicit ThrowStd(const Str& n) : SearchProcessor(n) {}
    static SearchProcessor* create(const Str& n) { return new ThrowStd(n); }
    void execute(SearchResults&, SearchResultsInfo&) override { throw std::logic_error("boom"); }
  };
  struct BadArg : SearchProcessor {
    explicit BadArg(const Str& n) : SearchProcessor(n) {}
    static SearchProcessor* create(const Str& n) { return new BadArg(n); }
    void processArguments() override { refuseLeftovers(); }
  };

  Str run(const Str& search, SearchResults& r, SearchResultsInfo& info) {
    try {
      std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, false));
      p->execute(r, info);
    } catch (const SearchProcessorException& e) {
      return e.what();
    }
    return "";
  }
};

TEST_F(PipelineTest, RunsMembersInOrderWithFirstFlag) {
  SearchResults r;
  SearchResultsInfo info;
  info.cancelId = "pt1";
  info.queryId = "q";
  SearchCancel::instance()->start("pt1");
  AddRows::firstFlags.clear();
  EXPECT_EQ(run("addrows 2 | addrows 3", r, info), "");
  EXPECT_EQ(r.size(), 5u);
  EXPECT_EQ(AddRows::firstFlags, "TF");
  EXPECT_EQ(SearchPIDs::instance()->size(), 0u);  // finalized
  SearchCancel::instance()->stop("pt1");
}

// A command that keeps only its first N rows gives the command before it the
// window [0, N-1] when the caller set none; later commands and the caller
// see the caller's window again.
TEST_F(PipelineTest, FirstCommandIsAskedOnlyForTheRowsTheNextOneKeeps) {
  struct Case {
    const char* search;
    int first, last;      // the caller's window
    const char* windows;  // what each addrows saw
    size_t rows;
  };
  const Case cases[] = {
      {"addrows 9 | keepfirst 4", -1, -1, "0,3;", 4},
      {"addrows 9 | keepfirst 4 | addrows 1", -1, -1, "0,3;-1,-1;", 5},
      {"addrows 9 | keepfirst 0", -1, -1, "-1,-1;", 9},     // keeps all: no window
      {"addrows 9 | addrows 1 | keepfirst 4", -1, -1, "-1,-1;-1,-1;", 4},  // not next to the first
      {"addrows 9 | keepfirst 4", 2, 5, "2,5;", 4},          // the caller's window stands
  };
  for (const Case& c : cases) {
    SearchResults r;
    SearchResultsInfo info;
    info.cancelId = "ptw";
    info.queryId = "q";
    info.firstEvent = c.first;
    info.lastEvent = c.last;
    SearchCancel::instance()->start("ptw");
    AddRows::windows.clear();
    EXPECT_EQ(run(c.search, r, info), "") << c.search;
    EXPECT_EQ(AddRows::windows, c.windows) << c.search;
    EXPECT_EQ(r.size(), c.rows) << c.search;
    EXPECT_EQ(info.firstEvent, c.first) << c.search;
    EXPECT_EQ(info.lastEvent, c.last) << c.search;
    SearchCancel::instance()->stop("ptw");
  }
}

TEST_F(PipelineTest, CancelBetweenCommandsLeavesNoRowsAndNoError) {
  SearchResults r;
  SearchResultsInfo info;
  info.cancelId = "pt2";
  info.queryId = "q";
  SearchCancel::instance()->start("pt2");
  AddRows::firstFlags.clear();
  EXPECT_EQ(run("addrows 4 | cancelme | addrows 1", r, info), "");
  EXPECT_EQ(r.size(), 0u);
  EXPECT_EQ(AddRows::firstFlags, "T");  // the last command never ran
  EXPECT_EQ(SearchPIDs::instance()->size(), 0u);
}

TEST_F(PipelineTest, EmptyCancelIdNeverCancelsAndQueryIdIsGenerated) {
  SearchResults r;
  SearchResultsInfo info;
  EXPECT_EQ(run("addrows 1", r, info), "");
  EXPECT_EQ(r.size(), 1u);
  EXPECT_TRUE(info.queryId.startswith("spgenqid_"));
}

TEST_F(PipelineTest, FailuresBecomeSearchProcessorExceptions) {
  SearchResults r;
  SearchResultsInfo info;
  info.queryId = "q";
  EXPECT_EQ(run("addrows 1 | throwstd", r, info), "boom");
  EXPECT_EQ(run("badarg x", r, info), "Error in 'badarg' command: Invalid argument: 'x'");
  EXPECT_EQ(SearchPIDs::instance()->size(), 0u);
}

}  // namespace
