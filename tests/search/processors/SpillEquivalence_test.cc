// With `maxresultrows` at 100, 10,000 rows spilled into chunk files must
// give the same rows as the same rows in memory, for every text, set and
// tool command: streamable ones run chunk by chunk, the others read every
// chunk first.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"

namespace {

using rowtest::Row;

// `mkrows k=v...`, test-only: replaces the rows by one row per argument.
class MkRows : public SearchProcessor {
 public:
  explicit MkRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new MkRows(n); }
  void processArguments() override {
    for (size_t i = 0; i < args.size(); ++i)
      if (StringArg* a = unconsumedString(i)) {
        kv.emplace_back(a->getOptionName(), a->getOptionValue());
        a->setConsumed();
      }
  }
  void execute(SearchResults& r, SearchResultsInfo&) override {
    r.free(false);
    for (auto& p : kv) r.addNewResult()->setValue(p.first, p.second);
  }
  std::vector<std::pair<Str, Str>> kv;
};

std::vector<Row> makeRows() {
  std::vector<Row> rows;
  long t = 5000000;
  for (int n = 0; n < 10000; ++n) {
    t -= 7 + (n % 100 == 99 ? 900 : 0);  // newest first, a long pause every 100 events
    std::string raw = "start " + std::to_string(n);
    for (int l = 0; l < n % 15; ++l) raw += (l == 9 ? "\nan ERROR line " : "\nline ") + std::to_string(l);
    Row r = {{"n", std::to_string(n)},
             {"_time", std::to_string(t)},
             {"_raw", raw},
             {"host", "h" + std::to_string(n % 3)},
             {"path", "a::" + std::to_string(n % 4) + "::" + std::to_string(n % 7)}};
    // Some chunks know this field and some do not.
    if ((n / 100) % 2 == 0) r.push_back({"bytes-in", std::to_string(n % 11)});
    rows.push_back(r);
  }
  return rows;
}

TEST(SpillEquivalenceTest, SpilledEqualsInMemory) {
  searchtest::ScratchHome& home = rowtest::CatalogueHome::ensure();
  home.writeConf("tags", "[host=h1]\none = enabled\n[host=h2]\ntwo = enabled\n");
  ASSERT_EQ(SearchResults::getMaxResultRows(), 100u);
  SearchFactory::registerBuiltin("mkrows", &MkRows::create, false);
  const std::vector<Row> rows = makeRows();
  const char* searches[] = {
      // streamable
      "abstract maxlines=3",
      "editinfo keywords=error | excerpt maxterms=4 | highlight line",
      "nokv",
      "tags host",
      "where bytes-in > 6 OR n < 5",
      "map search=\"| mkrows h=$host$\"",
      // every row at once
      "format",
      "page 150 9890 [reverse | page 0 200]",
      "localize maxpause=2m",
      "folderize attr=path minfolders=5",
  };
  for (const char* search : searches) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 100);
    ASSERT_EQ(sp.getFiles().size(), 100u);
    ASSERT_EQ(rowtest::runFresh(search, mem, i1), "") << search;
    ASSERT_EQ(rowtest::runFresh(search, sp, i2), "") << search;
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    EXPECT_FALSE(a.empty()) << search;
    EXPECT_EQ(b.size(), a.size()) << search;
    EXPECT_EQ(b, a) << search;
  }
}

}  // namespace
