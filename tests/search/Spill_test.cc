#include <gtest/gtest.h>

#include "SearchTestUtil.h"
#include "search/SearchResults.h"
#include "util/Exceptions.h"

using searchtest::Row;
using searchtest::rowsOf;

namespace {

std::vector<Row> numbered(size_t n) {
  std::vector<Row> rows;
  for (size_t i = 0; i < n; ++i) {
    Row r{{"n", std::to_string(i)}};
    if (i % 3 == 0) r["odd one"] = "x \"" + std::to_string(i) + "\"\nline";
    rows.push_back(r);
  }
  return rows;
}

// Spills `rows` into files of `per` rows each under dir and registers them.
void spill(SearchResults& rs, const searchtest::ScratchDir& dir, const std::vector<Row>& rows, size_t per) {
  for (size_t i = 0, f = 0; i < rows.size(); i += per, ++f) {
    SearchResults part;
    searchtest::addRows(part, std::vector<Row>(rows.begin() + i, rows.begin() + std::min(rows.size(), i + per)));
    Pathname p = dir / ("part" + std::to_string(f) + ".csv");
    FileStar fs(fopen(p.c_str(), "w"));
    part.toCSV(fs);
    fs.close();
    rs.addFile(p);
  }
}

std::vector<Row> walk(SearchResults& rs) {
  std::vector<Row> all;
  rs.firstFile();
  while (rs.readFile()) {
    for (const Row& r : rowsOf(rs)) all.push_back(r);
    rs.writeFile();
    rs.nextFile();
  }
  return all;
}

TEST(Spill, WalkGivesTheSameRowsAsMemory) {
  searchtest::ScratchDir dir;
  const std::vector<Row> rows = numbered(10);
  SearchResults mem;
  searchtest::addRows(mem, rows);
  EXPECT_EQ(walk(mem), rows);  // no files: one pass over memory
  EXPECT_EQ(walk(mem), rows);  // and again after firstFile()

  SearchResults spilled;
  spill(spilled, dir, rows, 3);
  EXPECT_EQ(spilled.getFiles().size(), 4u);
  EXPECT_EQ(walk(spilled), rows);
  EXPECT_EQ(walk(spilled), rows);  // writeFile kept the files intact
}

// Taking another set's rows into the current chunk (rowsOnly) must leave
// the chunk chain alone; a full usurp takes the other's chain instead.
TEST(Spill, UsurpOfRowsKeepsTheChunkChain) {
  searchtest::ScratchDir dir;
  SearchResults spilled;
  spill(spilled, dir, numbered(9), 3);
  spilled.firstFile();
  ASSERT_TRUE(spilled.readFile());
  SearchResults replacement;
  searchtest::addRows(replacement, {Row{{"m", "new"}}});
  spilled.usurp(replacement, true);
  EXPECT_EQ(spilled.getFiles().size(), 3u);
  EXPECT_EQ(rowsOf(spilled), (std::vector<Row>{Row{{"m", "new"}}}));

  SearchResults whole;
  whole.usurp(spilled);
  EXPECT_EQ(whole.getFiles().size(), 3u);
  EXPECT_TRUE(spilled.getFiles().empty());
}

TEST(Spill, EmptiedChunkIsDeletedWithoutSkippingTheNext) {
  searchtest::ScratchDir dir;
  SearchResults rs;
  spill(rs, dir, numbered(9), 3);
  const Pathname middle = rs.getFiles()[1];
  std::vector<std::string> seen;
  rs.firstFile();
  while (rs.readFile()) {
    for (const SearchResult* r : rs) seen.push_back(r->getValue(rs.keyIndex("n")));
    if (rs.front()->getValue(rs.keyIndex("n")) == "3") rs.free(true);  // a filter dropped the chunk
    rs.writeFile();
    rs.nextFile();
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"0", "1", "2", "3", "4", "5", "6", "7", "8"}));
  EXPECT_EQ(rs.getFiles().size(), 2u);
  EXPECT_FALSE(middle.exists());
  std::vector<Row> left = walk(rs);
  EXPECT_EQ(left.size(), 6u);
  EXPECT_EQ(left[3].at("n"), "6");
}

TEST(Spill, WriteBackFailureIsReported) {
  searchtest::ScratchDir dir;
  SearchResults rs;
  spill(rs, dir, numbered(2), 2);
  rs.firstFile();
  ASSERT_TRUE(rs.readFile());
  ASSERT_TRUE(dir.path().removeRecursive());
  EXPECT_FALSE(rs.writeFile());
  EXPECT_EQ(rs.getFiles().size(), 1u);
  ASSERT_TRUE(dir.path().mkdir());
}

TEST(Spill, UnreadableFileEndsTheWalk) {
  searchtest::ScratchDir dir;
  SearchResults rs;
  rs.addFile(dir / "gone.csv");
  rs.firstFile();
  EXPECT_FALSE(rs.readFile());
}

TEST(Collapse, RechunksSpilledRows) {
  searchtest::ScratchDir dir;
  const std::vector<Row> rows = numbered(10);
  const struct {
    size_t chunk, offset, maxRows;
    size_t files;  // 0: all rows end in memory
    size_t first, count;
  } cases[] = {
      {4, 0, 0, 3, 0, 10},
      {4, 3, 0, 2, 3, 7},
      {4, 2, 5, 2, 2, 5},
      {20, 0, 0, 0, 0, 10},
      {20, 1, 4, 0, 1, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.chunk << "/" << c.offset << "/" << c.maxRows);
    searchtest::ScratchDir work;
    SearchResults rs;
    spill(rs, work, rows, 3);
    EXPECT_EQ(rs.collapse(Pathname(), c.chunk, c.offset, c.maxRows), c.count);
    EXPECT_EQ(rs.getFiles().size(), c.files);
    for (const Pathname& p : rs.getFiles()) EXPECT_EQ(p.toParent(), work.path());
    std::vector<Row> want(rows.begin() + c.first, rows.begin() + c.first + c.count);
    EXPECT_EQ(walk(rs), want);
  }
}

TEST(Collapse, InMemoryAppliesOffsetAndMax) {
  SearchResults rs;
  searchtest::addRows(rs, numbered(6));
  EXPECT_EQ(rs.collapse(Pathname(), 2, 1, 3), 3u);
  const std::vector<Row> all = numbered(4);
  EXPECT_EQ(rowsOf(rs), (std::vector<Row>(all.begin() + 1, all.end())));
}

TEST(Collapse, UnreadableChunkThrows) {
  searchtest::ScratchDir dir;
  SearchResults rs;
  spill(rs, dir, numbered(4), 2);
  rs.addFile(dir / "missing.csv");
  EXPECT_THROW(rs.collapse(dir.path(), 2, 0, 0), SearchResultsException);
}

TEST(Spill, TemporaryDirectoriesGoWithTheResults) {
  searchtest::ScratchDir dir;
  Pathname tmp = dir / "job";
  ASSERT_TRUE(tmp.mkdir());
  searchtest::writeAll(tmp / "x.csv", "a\n1\n");
  {
    SearchResults rs;
    rs.addTempDir(tmp);
    rs.addTempDir(dir / "not-a-dir");
  }
  EXPECT_FALSE(tmp.exists());
}

}  // namespace
