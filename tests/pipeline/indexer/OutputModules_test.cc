// The small "OUTPUT" modules: the scheduler summary line, the export file
// and the colour strip of event types.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "QueryModuleTestIndex.h"
#include "pipeline/indexer/GetEvents.h"
#include "pipeline/indexer/GetHosts.h"
#include "pipeline/indexer/OutputExport.h"
#include "pipeline/indexer/OutputMagicGraph.h"
#include "pipeline/indexer/OutputScheduler.h"

namespace {

const int64_t kBase = 1700000000;  // 11/14/2023:22:13:20 UTC

class OutputModulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    t.put("first", kBase, "web1");
    t.put("tab\there", kBase + 1, "web2");
    t.put("two\nlines \\ end", kBase + 2, "web1");
    ids = t.ids();
    ASSERT_EQ(ids.size(), 3u);
  }

  QueryModuleTestIndex t;
  std::vector<ValueWrapper> ids;
};

// The event count says "+" when the search stopped at its limit; list
// counts are the sizes of whole lists, 0 for lists not fetched; the bounds
// are those the query set.
TEST_F(OutputModulesTest, SchedulerLine) {
  auto q = t.query(ids);
  q->stateMachine().setResultLimit(2);
  q->stateMachine().getTimeParser().parse("starttimeu", ToString((long)kBase), "%m/%d/%Y:%H:%M:%S", kBase);
  q->stateMachine().getTimeParser().parse("endtimeu", ToString((long)kBase + 3600), "%m/%d/%Y:%H:%M:%S", kBase);
  QueryModuleTestIndex::run<GetHosts>(*q, {{"hosts", "0-0"}});
  EXPECT_EQ(QueryModuleTestIndex::output<OutputScheduler>(*q, {{"scheduler", "yes"}}),
            "<schedResults><eventCount>2+</eventCount><hostCount>2</hostCount><sourceCount>0</sourceCount>"
            "<typeCount>0</typeCount><sourceTypeCount>0</sourceTypeCount><eventTagCount>0</eventTagCount>"
            "<hostTagCount>0</hostTagCount><starttime>11/14/2023:22:13:20</starttime>"
            "<endtime>11/14/2023:23:13:20</endtime></schedResults>\n");

  auto all = t.query(ids);
  all->stateMachine().setResultLimit(3);
  EXPECT_EQ(QueryModuleTestIndex::output<OutputScheduler>(*all, {}),
            "<schedResults><eventCount>3</eventCount><hostCount>0</hostCount><sourceCount>0</sourceCount>"
            "<typeCount>0</typeCount><sourceTypeCount>0</sourceTypeCount><eventTagCount>0</eventTagCount>"
            "<hostTagCount>0</hostTagCount><starttime></starttime><endtime></endtime></schedResults>\n");
}

// One line per event that was read, its text kept whole but for the bytes
// that would break the line.
TEST_F(OutputModulesTest, ExportFile) {
  ValueWrapper lost = ids[0];
  lost.bucketId = 55;
  auto q = t.query({ids[0], lost, ids[1], ids[2]});
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-3"}});
  Str file = t.root() / "out.txt";
  QueryModuleTestIndex::run<OutputExport>(*q, {{"exportto", file}});
  std::ifstream in(file.c_str());
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), Str::fromFormat("\t%lld\ttwo\\nlines \\\\ end\n"
                                        "\t%lld\ttab\\there\n"
                                        "\t%lld\tfirst\n",
                                        (long long)kBase + 2, (long long)kBase + 1, (long long)kBase));
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputExport>(*q, {{"exportto", "/nonexistent/dir/x"}}),
            "Cannot open for writing /nonexistent/dir/x");
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputExport>(*q, {}), "Cannot open for writing ");
}

TEST_F(OutputModulesTest, MagicGraphRuns) {
  std::vector<ValueWrapper> typed = ids;
  typed.push_back(ids[0]);
  typed[0].type = 3;
  typed[1].type = 3;
  typed[2].type = 0;
  typed[3].type = 5;
  auto q = t.query(typed);
  const Str three = OutputMagicGraph::colourOf(3);
  const Str five = OutputMagicGraph::colourOf(5);
  const char* span =
      "<span style=\"display:inline-block;width:%dpx;height:16px;background-color:%s\" "
      "title=\"eventtype %d: %d events\"></span>";
  EXPECT_EQ(QueryModuleTestIndex::output<OutputMagicGraph>(*q, {{"magicgraph", "all"}}),
            "<magicgraph c=\"4\"><div class=\"magicgraph\">" + Str::fromFormat(span, 4, three.c_str(), 3, 2) +
                Str::fromFormat(span, 2, "#cccccc", 0, 1) + Str::fromFormat(span, 2, five.c_str(), 5, 1) +
                "</div></magicgraph>\n");
  EXPECT_EQ(QueryModuleTestIndex::output<OutputMagicGraph>(*q, {{"magicgraph", "1"}}),
            "<magicgraph c=\"1\"><div class=\"magicgraph\">" + Str::fromFormat(span, 2, three.c_str(), 3, 1) +
                "</div></magicgraph>\n");

  // Colours: fixed per code, "#rrggbb", distinct for neighbouring codes.
  std::set<Str> seen;
  for (uint32_t code = 1; code <= 7; ++code) {
    Str c = OutputMagicGraph::colourOf(code);
    EXPECT_EQ(c, OutputMagicGraph::colourOf(code));
    ASSERT_EQ(c.size(), 7u);
    EXPECT_EQ(c.find_first_not_of("#0123456789abcdef"), Str::npos) << c;
    EXPECT_NE(c, "#cccccc");
    seen.insert(c);
  }
  EXPECT_EQ(seen.size(), 7u);
}

}  // namespace
