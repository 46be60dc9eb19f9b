// Reports that count by stored fields (host, source, source type, index and
// time bins) are answered by the index reader without a row per event: the
// rows must be those of the same report run over the events themselves,
// and reports the reader cannot count must not be taken over.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "SearchCommandsFixture.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/dispatch/PeerSearch.h"
#include "search/dispatch/StreamingSearch.h"
#include "search/processors/SearchCommands.h"

namespace {

using velmortest::Row;

class CountingReportsTest : public velmortest::SearchCommandsFixture {
 protected:
  // 500 events over about six hours, spread over three hosts, two sources
  // and three source types; every seventh holds "error". Two seconds hold
  // several events, one of them at an hour's boundary.
  void writeEvents() {
    SearchCommands::registerAll();
    const char* types[] = {"web", "app", "db"};
    for (int i = 0; i < 500; ++i) {
      long t = kT0 + i * 43 - (i % 50 == 0 ? 43 : 0);
      if (i == 84) t = kT0 + 3600;  // on the boundary
      PipelineData ev;
      ev.put(PipelineData::rawKey, "event " + std::to_string(i) + (i % 7 == 0 ? " error" : " fine"));
      ev.put(PipelineData::hostKey, "host-" + std::to_string(i % 3));
      ev.put(PipelineData::sourceKey, i % 2 ? "/var/log/a.log" : "/var/log/b.log");
      ev.put(PipelineData::sourceTypeKey, types[(i / 5) % 3]);
      ev.put(PipelineData::timeKey, std::to_string(t));
      ev.put("_sync", "1");
      ASSERT_EQ(processor->execute(ev), IndexProcessor::eOk);
    }
  }

  struct Outcome {
    std::vector<Row> rows;
    bool absorbed = false;
    std::string error;
  };

  Outcome runReport(const std::string& text) {
    Outcome out;
    SearchResultsInfo info;
    static int n = 0;
    info.cancelId = "counting-" + std::to_string(++n);
    SearchCancel::instance()->start(info.cancelId);
    SearchResults rs;
    try {
      StreamingSearch s(SearchParser::parse(text, true), info);
      out.absorbed = s.split().mapAbsorbed();
      s.run(rs, info);
    } catch (const std::exception& e) {
      out.error = e.what();
    }
    out.rows = velmortest::rowsOf(rs);
    return out;
  }
};

TEST_F(CountingReportsTest, CountsByStoredFieldsEqualCountsOverTheEvents) {
  start();
  writeEvents();
  const char* reports[] = {
      "search * | stats count by host",
      "search error | stats count by host sourcetype",
      "search * | stats count c as n",
      "search fine host::host-1 | stats count by source index",
      "search * | timechart span=1h count by host",
      "search * | timechart span=30m count by sourcetype",
      "search error | timechart span=1d count",
      "search * | chart count by host sourcetype",
      "search * | top sourcetype",
  };
  for (const char* report : reports) {
    Outcome counted = runReport(report);
    // An eval between search and the report makes the events themselves go
    // through the map half.
    std::string text = report;
    text.insert(text.find(" | "), " | eval unused=1");
    Outcome overEvents = runReport(text);
    ASSERT_EQ(counted.error, "") << report;
    ASSERT_EQ(overEvents.error, "") << text;
    EXPECT_FALSE(overEvents.absorbed) << text;
    EXPECT_FALSE(counted.rows.empty()) << report;
    EXPECT_EQ(counted.rows, overEvents.rows) << report;
    // `top` has a map half of its own; the stats-shaped ones are counted.
    if (std::string(report).find("top") == std::string::npos) {
      EXPECT_TRUE(counted.absorbed) << report;
    }
  }
}

// Partial rows of a map half summed by their group: the reader's counts come
// in one row per group, the events' in one row per group and chunk.
std::map<std::string, long> summed(const std::vector<Row>& rows) {
  std::map<std::string, long> out;
  for (const Row& r : rows) {
    std::string key;
    long num = 0;
    for (const auto& [field, value] : r) {
      if (field == "num") num = std::stol(value);
      else key += field + "=" + value + ";";
    }
    out[key] += num;
  }
  return out;
}

// A peer is sent the map half written out ("search x | prestats count by
// host"); it must count as the head would, and give the rows the same text
// gives over the events.
TEST_F(CountingReportsTest, MapHalvesSentToPeersAreCountedToo) {
  start();
  writeEvents();
  for (const char* report : {
           "search * | stats count by host",
           "search error | stats count by host sourcetype",
           "search * | timechart span=1h count by host",
           "search * | chart count by host sourcetype",
       }) {
    std::string spread = PeerSearch::rewrite(report, {"https://127.0.0.1:1"}).c_str();
    size_t open = spread.find("[ "), close = spread.rfind(" ]");
    ASSERT_NE(open, std::string::npos) << spread;
    std::string mapHalf = spread.substr(open + 2, close - open - 2);
    ASSERT_NE(mapHalf.find("| pre"), std::string::npos) << mapHalf;
    Outcome counted = runReport(mapHalf);
    std::string overText = mapHalf;
    overText.insert(overText.find(" | "), " | eval unused=1");
    Outcome overEvents = runReport(overText);
    ASSERT_EQ(counted.error, "") << mapHalf;
    ASSERT_EQ(overEvents.error, "") << overText;
    EXPECT_TRUE(counted.absorbed) << mapHalf;
    EXPECT_FALSE(overEvents.absorbed) << overText;
    EXPECT_FALSE(counted.rows.empty()) << mapHalf;
    EXPECT_EQ(summed(counted.rows), summed(overEvents.rows)) << mapHalf;
  }
}

TEST_F(CountingReportsTest, ReportsThatNeedTheEventsAreNotCounted) {
  start();
  writeEvents();
  for (const char* report : {
           "search * | stats count by _raw",           // a field of the text
           "search * | stats dc(host)",                // more than a count
           "search * | stats count by _time",          // time without a bin
           "search * | timechart count by host",       // a span chosen over the rows
           "search * | stats count(host) by sourcetype",  // a count of a field's values
       }) {
    Outcome o = runReport(report);
    EXPECT_EQ(o.error, "") << report;
    EXPECT_FALSE(o.absorbed) << report;
    EXPECT_FALSE(o.rows.empty()) << report;
  }
}

}  // namespace
