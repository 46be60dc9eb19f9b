#include "pipeline/analysis/Aggregator.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <fstream>
#include <string>
#include <vector>

#include "../../util/StderrCapture.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/analysis/RulesDB.h"

namespace {

// One stanza per source under test; no date patterns anywhere, so no line
// holds a date.
const char kProps[] =
    "[default]\nDATETIME_CONFIG = NONE\n"
    "[source::brk]\nBREAK_ONLY_BEFORE = ^\\d{4}-\\d\\d-\\d\\d \\d\\d:\n"
    "[source::after]\nBREAK_ONLY_BEFORE = ^BEGIN\nMUST_BREAK_AFTER = END$\n"
    "[source::hold]\nBREAK_ONLY_BEFORE = ^BEGIN\nMUST_NOT_BREAK_AFTER = ^HOLD\nMUST_BREAK_AFTER = ^RELEASE\n"
    "[source::hold_max]\nBREAK_ONLY_BEFORE = ^BEGIN\nMUST_NOT_BREAK_AFTER = ^HOLD\nMAX_EVENTS = 5\n"
    "[source::max]\nBREAK_ONLY_BEFORE = ^NEVER\nMAX_EVENTS = 4\n"
    "[source::before]\nBREAK_BEFORE_DATE = false\nAUTO_LINEMERGE = false\n"
    "MUST_BREAK_BEFORE = ^\\s+BREAK\nMUST_NOT_BREAK_BEFORE = ^\\s\n"
    "[source::each]\nAUTO_LINEMERGE = false\nBREAK_BEFORE_DATE = false\n"
    "[source::undated]\nBREAK_ONLY_BEFORE_DATE = true\n"
    "[source::learned]\nBREAK_BEFORE_DATE = false\n"
    "[source::bad]\nMUST_BREAK_AFTER = ([unclosed\nMUST_NOT_BREAK_AFTER = ^ok\nMAX_EVENTS = lots\n"
    "[source::.../patterned/*.log]\nSHOULD_LINEMERGE = false\n"
    "[host::bighost]\nMAX_EVENTS = 100\n";

// A scratch VELMOR_HOME holding the props above, for the whole program.
struct Home {
  std::string dir;
  Home() {
    char tmpl[] = "/tmp/velmor-agg-XXXXXX";
    dir = mkdtemp(tmpl) ? tmpl : "";
    if (dir.empty() || system(("mkdir -p " + dir + "/etc/bundles/default").c_str()) != 0) return;
    std::ofstream(dir + "/etc/bundles/default/props.conf") << kProps;
    setenv("VELMOR_HOME", dir.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    PropertyPages::propsInstance().updateConfigs();
  }
  ~Home() {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) {
    }
  }
};
const Home& home() {
  static Home h;
  return h;
}

using Record = std::shared_ptr<PipelineData>;
using Lines = std::vector<std::string>;

Record line(const std::string& raw, int seek = -1) {
  auto r = std::make_shared<PipelineData>();
  r->put(PipelineData::rawKey, Str(raw));
  if (seek >= 0) r->put(PipelineData::seekAddrKey, Str(std::to_string(seek)));
  return r;
}

Str confOf(const std::string& source, const char* host = "host::h1") {
  return Str("source::" + source + "|" + host + "|sourcetype::t|" + source);
}

// Feeds every line, then flushes; the `_raw` of each event in order.
Lines run(Aggregator& a, const Lines& lines) {
  Lines events;
  for (const std::string& l : lines)
    if (Record e = a.processLine(line(l))) events.push_back(e->getStr(PipelineData::rawKey));
  if (Record e = a.processLine(nullptr)) events.push_back(e->getStr(PipelineData::rawKey));
  return events;
}

Lines numbered(const char* prefix, int from, int to) {
  Lines v;
  for (int i = from; i <= to; ++i) v.push_back(prefix + std::to_string(i));
  return v;
}
Lines operator+(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
std::string joined(const Lines& v) {
  std::string s;
  for (const std::string& l : v) s += (s.empty() ? "" : "\n") + l;
  return s;
}

class AggregatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(home().dir.empty());
    RulesDB::instance().clear();
  }
};

// A stamped line with a stack trace under it, as Java logging writes it.
const Lines kTrace = {"2026-11-24 13:05:57,004 ERROR [exec-7] com.example.PaymentService - failed",
                      "com.example.GatewayException: Payment authorization failed for order 41235",
                      "\tat com.example.GatewayClient.authorize(GatewayClient.java:131)",
                      "Caused by: java.net.SocketTimeoutException: Read timed out", "\t... 9 more"};
const std::string kStamped = "2026-11-24 13:05:58,310 WARN  [scheduler-1] com.example.Inventory - slow";

TEST_F(AggregatorTest, BreakingRulesCutLinesIntoEvents) {
  struct Case {
    const char* source;
    Lines lines, events;
  } cases[] = {
      {"brk", kTrace + Lines{kStamped}, {joined(kTrace), kStamped}},
      {"brk", {"orphan", "\tat x", kStamped}, {"orphan\n\tat x", kStamped}},
      // The line after END breaks although BREAK_ONLY_BEFORE would join it.
      {"after", {"BEGIN a", "x", "y END", "z", "w", "BEGIN b"}, {"BEGIN a\nx\ny END", "z\nw", "BEGIN b"}},
      // After HOLD even BEGIN lines join, until RELEASE.
      {"hold",
       {"BEGIN 1", "HOLD", "BEGIN 2", "RELEASE", "tail", "BEGIN 3"},
       {"BEGIN 1\nHOLD\nBEGIN 2\nRELEASE", "tail", "BEGIN 3"}},
      // ... and past MAX_EVENTS when nothing releases them.
      {"hold_max", Lines{"BEGIN", "HOLD"} + numbered("BEGIN ", 1, 20),
       {joined(Lines{"BEGIN", "HOLD"} + numbered("BEGIN ", 1, 20))}},
      // MAX_EVENTS = 4 cuts after the 5th line.
      {"max", numbered("l", 1, 12), {joined(numbered("l", 1, 5)), joined(numbered("l", 6, 10)), "l11\nl12"}},
      // MUST_BREAK_BEFORE beats MUST_NOT_BREAK_BEFORE; with neither, a break.
      {"before", {"head 1", "  more", "  BREAK", "  more", "head 2"}, {"head 1\n  more", "  BREAK\n  more", "head 2"}},
      // Blank events are dropped, the flushed one too.
      {"each", {"a", "   ", "", "b", "\t \r"}, {"a", "b"}},
  };
  for (const Case& c : cases) {
    Aggregator a(confOf(c.source));
    EXPECT_EQ(run(a, c.lines), c.events) << c.source;
  }
}

TEST_F(AggregatorTest, UndatedStreamIsCutByMaxEventsThenStopsWaitingForDates) {
  Aggregator a(confOf("undated"));
  Lines events = run(a, numbered("no stamp on line ", 1, 600));
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[0], joined(numbered("no stamp on line ", 1, 513)));
  EXPECT_FALSE(a.breakOnlyBeforeDate());
  EXPECT_TRUE(a.autoLineMerge());
  EXPECT_EQ(joined(events), joined(numbered("no stamp on line ", 1, 600)));
}

TEST_F(AggregatorTest, JoinedEventHasTheWholeTextAndTheLastLinesKeys) {
  Aggregator a(confOf("brk"));
  Record first = line(kTrace[0], 100);
  first->put("only_on_first", "1");
  Record last = line(kTrace[1], 300);
  last->put("_seekcrc", "abc");
  ASSERT_EQ(a.processLine(first), nullptr);
  ASSERT_EQ(a.processLine(last), nullptr);
  Record e = a.processLine(line(kStamped, 400));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->getStr(PipelineData::rawKey), kTrace[0] + "\n" + kTrace[1]);
  EXPECT_EQ(e->getStr(PipelineData::seekAddrKey), "300");
  EXPECT_EQ(e->getStr("_seekcrc"), "abc");
  EXPECT_EQ(e->getStr("only_on_first"), "1");
  EXPECT_EQ(a.processLine(nullptr)->getStr(PipelineData::seekAddrKey), "400");
  EXPECT_EQ(a.processLine(nullptr), nullptr);
}

TEST_F(AggregatorTest, SettingsComeFromTheMostSpecificStanza) {
  struct Case {
    Str conf;
    bool lineMerge;
    unsigned maxEvents;
  } cases[] = {
      {confOf("nothing"), true, 512},  // defaults in code
      {confOf("nothing", "host::bighost"), true, 100},
      {confOf("max", "host::bighost"), true, 4},  // source beats host
      {confOf("/var/log/patterned/app.log"), false, 512},
  };
  for (const Case& c : cases) {
    Aggregator a(c.conf);
    EXPECT_EQ(a.shouldLineMerge(), c.lineMerge) << c.conf;
    EXPECT_EQ(a.maxEvents(), c.maxEvents) << c.conf;
  }
  Record r = line("as it is");
  Aggregator off(confOf("/x/patterned/b.log"));
  EXPECT_EQ(off.processLine(r), r);
  EXPECT_EQ(off.processLine(nullptr), nullptr);
}

TEST_F(AggregatorTest, UnusableSettingsAreLoggedAndTheOthersApply) {
  StderrCapture cap(home().dir + "/stderr");
  Aggregator bad(confOf("bad"));
  std::string log = cap.text();
  for (std::string text : {"Setting up line merging apparatus for: " + confOf("bad"),
                           "Invalid regex for MUST_BREAK_AFTER in " + confOf("bad"),
                           "Invalid value for MAX_EVENTS in " + confOf("bad")})
    EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
  EXPECT_FALSE(bad.hasPattern("MUST_BREAK_AFTER"));
  EXPECT_TRUE(bad.hasPattern("MUST_NOT_BREAK_AFTER"));
  EXPECT_EQ(bad.maxEvents(), 512u);
}

TEST_F(AggregatorTest, LearnedRulesJoinLinesOfARepeatedShape) {
  Aggregator a(confOf("learned"));
  const std::string frame = "  at frame", longLine(90, 'x'), longIndented = " " + longLine;
  struct Step {
    const std::string& text;
    bool brk;
  } steps[] = {
      {frame, true},         // no rule for (start, shape)
      {frame, true},         // the shape has been followed once only
      {frame, false},        // now a rule joins the pair
      {frame, false},        //
      {longIndented, true},  // a new pair
      {longLine, true},      // long and not indented: always breaks
  };
  int i = 0;
  for (const Step& s : steps) EXPECT_EQ(a.shouldBreak(s.text.data(), s.text.size()), s.brk) << "step " << i++;
  std::shared_ptr<Rule> rule = RulesDB::instance().findRule("at   at   ");
  ASSERT_NE(rule, nullptr);
  EXPECT_FALSE(rule->brk);
  EXPECT_DOUBLE_EQ(rule->weight, 100.0);
}

// The text feed (processText) must give the events, and count the blank
// lines, exactly as the record feed does, whatever rule cuts the stream.
TEST_F(AggregatorTest, TextFeedGivesTheEventsOfTheRecordFeed) {
  const Lines mixed = {"", "  ", "BEGIN a", "x", "", "y END", "z", "\t", "BEGIN b", "HOLD", "BEGIN c", "RELEASE"};
  struct Case {
    Str conf;
    Lines lines;
  } cases[] = {
      {confOf("brk"), Lines{"", "lead"} + kTrace + Lines{kStamped, "   ", kStamped, ""}},
      {confOf("after"), mixed},
      {confOf("hold"), mixed},
      {confOf("hold_max"), Lines{"BEGIN", "HOLD"} + numbered("BEGIN ", 1, 20) + Lines{" "}},
      {confOf("max"), numbered("l", 1, 12) + Lines{"", ""} + numbered("m", 1, 3)},
      {confOf("before"), {"head 1", "  more", "  BREAK", "  more", "head 2", "   "}},
      {confOf("each"), {"a", "   ", "", "b", "\t \r"}},
      {confOf("undated"), numbered("no stamp on line ", 1, 600) + Lines{"", "x"}},
      {confOf("learned"), Lines{"top"} + Lines(6, "  at frame") + Lines{"next", "  at frame", ""}},
      // No line merging: every line is an event, blank ones too (the index
      // drops those), so none is counted here.
      {confOf("/var/log/patterned/app.log"), {"a", "", "  ", "b"}},
      {confOf("nothing"), {}},
  };
  for (const Case& c : cases) {
    RulesDB::instance().clear();
    Aggregator byRecord(c.conf);
    const Lines expected = run(byRecord, c.lines);
    RulesDB::instance().clear();
    Aggregator byText(c.conf);
    Lines got;
    Str event("left over from the caller");
    for (const std::string& l : c.lines) {
      const StrSegment text(l.data(), l.size());
      if (byText.processText(&text, event)) got.push_back(event);
    }
    if (byText.processText(nullptr, event)) got.push_back(event);
    EXPECT_EQ(got, expected) << c.conf;
    EXPECT_EQ(byText.blankLinesDropped(), byRecord.blankLinesDropped()) << c.conf;
    EXPECT_FALSE(byText.processText(nullptr, event)) << c.conf;  // nothing left to flush
  }
}

// The kept date terms must follow every field of the time: each step
// changes one and the text must be what a fresh formatting gives.
TEST_F(AggregatorTest, DateTermsFollowEveryFieldOfTheTime) {
  ExtraTimevalParseInfo t;
  t.precision = 3;
  t.zoneKnown = true;
  t.zoneOffset = 3600;
  t.year = 2026, t.month = 10, t.mday = 24, t.wday = 2, t.hour = 13, t.minute = 5, t.second = 56;
  std::strcpy(t.subsecond, "047");
  std::vector<std::function<void(ExtraTimevalParseInfo&)>> steps = {
      [](auto&) {},  // the same time again
      [](auto& x) { std::strcpy(x.subsecond, "048"); },
      [](auto& x) { x.second = 57; },
      [](auto& x) { x.minute = 6; },
      [](auto& x) { x.hour = 14; },
      [](auto& x) { x.mday = 25; },
      [](auto& x) { x.wday = 3; },
      [](auto& x) { x.month = 11; },
      [](auto& x) { x.year = 2027; },
      [](auto& x) { x.zoneOffset = -18000; },
      [](auto& x) { x.zoneKnown = false; },
      [](auto& x) { x.subsecond[0] = '\0'; },  // subseconds claimed, none written
      [](auto& x) { x.precision = 0; },
      [](auto& x) { x.precision = -1; },
      [](auto& x) { x.precision = -2; },
      [](auto& x) { x.precision = -3; },
      [](auto& x) { x.precision = 9, std::strcpy(x.subsecond, "123456789"); },
  };
  Aggregator a(confOf("each"));
  int i = 0;
  for (auto& step : steps) {
    step(t);
    Str fresh;
    PipelineData::appendMetaTimeInfo(&t, fresh);
    EXPECT_EQ(a.dateTerms(t), fresh) << "step " << i++;
  }
}

TEST(CurrentLineDataHash, GivingUpFollowersKeepsTheirNumber) {
  CurrentLineDataHash h;
  for (const char* f : {"x", "y", "x", "z"}) h.findOrAddCurrentLineData("p", f);
  CurrentLineData& d = h.findOrAddCurrentLineData("p", "x");
  CurrentLineDataHash::giveUp(d);
  h.findOrAddCurrentLineData("p", "new");
  EXPECT_TRUE(d.followers.empty());
  EXPECT_EQ(d.numFollowers, 3u);
  EXPECT_EQ(d.count, 6u);
}

}  // namespace
