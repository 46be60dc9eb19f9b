// surrounding over a real index: the argument faults, the events around one
// event (oldest first, the radius growing until both sides are full or the
// index is covered), a deleted event, and the block signatures of a signed
// index as _decoration values and summary messages.
#include "pipeline/indexer/search/SurroundingDataOperator.h"

#include <fstream>
#include <iterator>

#include "SearchCommandsFixture.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"

namespace {

using velmortest::column;
using velmortest::Row;

class SurroundingTest : public velmortest::SearchCommandsFixture {
 protected:
  // The _cd of the only event holding `word`.
  std::string cdOf(const std::string& word) {
    std::vector<Row> rows = run("newsearch " + word);
    EXPECT_EQ(rows.size(), 1u) << word;
    return rows.empty() ? "" : rows[0].at("_cd");
  }
  std::string call(const std::string& cd, long before, long after, const std::string& keys, long max,
                   int readlevel = 1) {
    return "surrounding id=" + cd + " timeBefore=" + std::to_string(before) + " timeAfter=" + std::to_string(after) +
           " searchkeys=\"" + keys + "\" maxresults=" + std::to_string(max) + " index=main readlevel=" +
           std::to_string(readlevel);
  }
  static std::vector<std::string> ticks(int from, int to) {
    std::vector<std::string> out;
    for (int i = from; i <= to; ++i) out.push_back("tick " + std::to_string(i) + " u" + std::to_string(i));
    return out;
  }
};

TEST_F(SurroundingTest, ArgumentFaultsAreNamed) {
  start();
  write("tick 0 u0", "web-01", kT0);
  const std::string cd = cdOf("u0");
  struct Case {
    std::string text, error;
  };
  const Case cases[] = {
      {"surrounding id=" + cd,
       "The following required arguments were not provided to the SurroundingDataOperator: timeBefore timeAfter "
       "searchkeys maxresults index readlevel "},
      {"surrounding timeBefore=1 timeAfter=1 searchkeys=x maxresults=1 index=main",
       "The following required arguments were not provided to the SurroundingDataOperator: id readlevel "},
      {call(cd, 1, 1, "", 1) + " extra", "Invalid argument: 'extra'"},
      {call("abc", 1, 1, "", 1), "Could not convert abc to a value wrapper"},
      {call("7", 1, 1, "", 1), "Could not convert 7 to a value wrapper"},
      {"surrounding id=" + cd + " timeBefore=x timeAfter=1 searchkeys=a maxresults=1 index=main readlevel=1",
       "Invalid integer value for option 'timeBefore'"},
      {"surrounding id=" + cd + " timeBefore=1 timeAfter=1 searchkeys=a maxresults=1 index=nosuch readlevel=1",
       "Unable to find index nosuch"},
      {call(cd, 1, 1, "", 1), ""},
  };
  for (const Case& c : cases) {
    std::string got = failure(c.text);
    if (c.error.empty())
      EXPECT_EQ(got, "") << c.text;
    else
      EXPECT_NE(got.find(c.error), std::string::npos) << c.text << " -> " << got;
  }
}

TEST_F(SurroundingTest, EventsAroundOneEventOldestFirst) {
  start();
  for (int i = 0; i <= 40; ++i) {
    write("tick " + std::to_string(i) + " u" + std::to_string(i), "web-01", kT0 + i);
    if (i % 2 == 0) write("tock " + std::to_string(i), "web-02", kT0 + i);
  }
  const std::string cd = cdOf("u20");

  // A radius of 3 is too small for 5 a side: it doubles.
  SearchResultsInfo info;
  std::vector<Row> rows = run(call(cd, 3, 3, "host::web-01", 5), info);
  EXPECT_EQ(column(rows, "_raw"), ticks(15, 25));
  EXPECT_EQ(rows[5].at("_cd"), cd);
  EXPECT_FALSE(info.messages.count(SearchResultsInfo::MSG_INFO));
  for (const Row& r : rows) EXPECT_FALSE(r.count("_decoration")) << "this index signs nothing";

  // No search keys: every event of the index around it.
  rows = run(call(cd, 0, 0, "", 2));
  EXPECT_EQ(column(rows, "_raw"),
            (std::vector<std::string>{"tock 18", "tick 19 u19", "tick 20 u20", "tock 20", "tick 21 u21"}));

  // None on either side.
  rows = run(call(cd, 10, 10, "host::web-01", 0));
  EXPECT_EQ(column(rows, "_raw"), ticks(20, 20));
}

TEST_F(SurroundingTest, RadiusGrowsUntilFullOrTheIndexIsCovered) {
  start();
  for (int i = 0; i <= 8; ++i) write("tick " + std::to_string(i) + " u" + std::to_string(i), "web-01", kT0 + 1000L * i);
  SearchResultsInfo info;
  std::vector<Row> rows = run(call(cdOf("u4"), 100, 100, "", 2), info);
  EXPECT_EQ(column(rows, "_raw"), ticks(2, 6));

  // The newest event has nothing after it: the search ends once the radius
  // covers the whole index, without the iteration limit.
  SearchResultsInfo last;
  rows = run(call(cdOf("u8"), 100, 100, "", 2), last);
  EXPECT_EQ(column(rows, "_raw"), ticks(6, 8));
  EXPECT_FALSE(last.messages.count(SearchResultsInfo::MSG_INFO));
}

TEST_F(SurroundingTest, DeletedEventEndsAtTheIterationLimitWithItsNeighbours) {
  start();
  for (int i = 0; i <= 40; ++i) write("tick " + std::to_string(i) + " u" + std::to_string(i), "web-01", kT0 + i);
  const std::string cd = cdOf("u20");
  ASSERT_EQ(processor->getDatabaseByName("main")->deleteByKeyword("u20", INT32_MIN, INT32_MAX, true), 1u);
  SearchResultsInfo info;
  std::vector<Row> rows = run(call(cd, 3, 3, "", 5), info);
  std::vector<std::string> want = ticks(15, 19), after = ticks(21, 25);
  want.insert(want.end(), after.begin(), after.end());
  EXPECT_EQ(column(rows, "_raw"), want);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"Too many iterations in get Surrounding data aborting  !!"});
}

TEST_F(SurroundingTest, BlockSignaturesDecorateRowsAndSumUp) {
  start("blockSignSize = 4\ncompressRawdata = false\n");
  for (int i = 0; i < 12; ++i) write("tick " + std::to_string(i) + " u" + std::to_string(i), "web-01", kT0 + i);
  processor->getDatabaseByName("main")->flushBlockSignatures();

  SearchResultsInfo info;
  std::vector<Row> rows = run(call(cdOf("u5"), 10, 10, "", 2), info);
  EXPECT_EQ(column(rows, "_raw"), ticks(3, 7));
  EXPECT_EQ(column(rows, "_decoration"), std::vector<std::string>(5, "showsourceValid"));
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"Velmor validated that this data has not been tampered with."});

  // An event written after the last block is not covered by any.
  write("tick 12 u12", "web-01", kT0 + 12);
  SearchResultsInfo partly;
  rows = run(call(cdOf("u11"), 10, 10, "", 1), partly);
  EXPECT_EQ(column(rows, "_decoration"),
            (std::vector<std::string>{"showsourceValid", "showsourceValid", "showsourceCantValidate"}));
  EXPECT_EQ(partly.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"Velmor could not validate the consistency of this source. There may be gaps in this data."});

  SearchResultsInfo none;
  rows = run(call(cdOf("u12"), 10, 10, "", 0), none);
  EXPECT_EQ(column(rows, "_decoration"), std::vector<std::string>{"showsourceCantValidate"});
  EXPECT_EQ(none.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"Velmor could not validate this source. There may be gaps in this data or this data "
                             "may have been tampered with. See velmord.log."});

  // One byte of event 5 changed in the raw data file.
  std::string file = home + "/var/lib/velmor/db/defaultdb/db/db-hot/rawdata/0";
  std::fstream f(file.c_str(), std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(f.good()) << file;
  std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  size_t at = bytes.find("tick 5 u5");
  ASSERT_NE(at, std::string::npos);
  f.seekp(std::streamoff(at + 5));
  f.put('X');
  f.close();
  SearchResultsInfo tampered;
  rows = run(call(cdOf("u4"), 10, 10, "", 1), tampered);
  EXPECT_EQ(column(rows, "_decoration"),
            (std::vector<std::string>{"showsourceValid", "showsourceValid", "showsourceInvalid"}));
  EXPECT_EQ(tampered.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"Velmor detected possible tampering with this source."});
}

}  // namespace
