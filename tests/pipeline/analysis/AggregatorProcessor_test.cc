#include "pipeline/analysis/AggregatorProcessor.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const char kProps[] =
    "[source::blocks]\nBREAK_ONLY_BEFORE = ^BEGIN\nDATETIME_CONFIG = NONE\n"
    "[source::single]\nSHOULD_LINEMERGE = false\nDATETIME_CONFIG = NONE\n"
    "[source::noterms]\nSHOULD_LINEMERGE = false\nDATETIME_CONFIG = NONE\nINDEX_DATE_ELEMENTS = false\n"
    "[source::clock]\nSHOULD_LINEMERGE = false\nDATETIME_CONFIG = CURRENT\n"
    "[source::java]\nBREAK_ONLY_BEFORE_DATE = true\nTZ = UTC\n";

// Date patterns for "2026-11-24 13:05:57,004" alone.
const char kDates[] =
    "<datetime>\n"
    "<define name='t' extract='hour,minute,second,subsecond'><text>(\\d\\d):(\\d\\d):(\\d\\d),(\\d{3})</text></define>\n"
    "<define name='d' extract='year,month,day'><text>(\\d{4})-(\\d\\d)-(\\d\\d)</text></define>\n"
    "<timePatterns><use name='t'/></timePatterns>\n"
    "<datePatterns><use name='d'/></datePatterns>\n"
    "</datetime>\n";

// A scratch VELMOR_HOME with the props and date patterns above, for the
// whole program.
struct Home {
  std::string dir;
  Home() {
    char tmpl[] = "/tmp/velmor-aggp-XXXXXX";
    dir = mkdtemp(tmpl) ? tmpl : "";
    if (dir.empty() || system(("mkdir -p " + dir + "/etc/bundles/default").c_str()) != 0) return;
    std::ofstream(dir + "/etc/bundles/default/props.conf") << kProps;
    std::ofstream(dir + "/etc/datetime.xml") << kDates;
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

Record line(const char* source, const char* raw, const char* time = nullptr) {
  auto r = std::make_shared<PipelineData>();
  r->put(PipelineData::sourceKey, Str(std::string("source::") + source));
  r->put(PipelineData::hostKey, "host::h1");
  if (raw) r->put(PipelineData::rawKey, raw);
  if (time) r->put(PipelineData::timeKey, time);
  if (!raw) r->put(PipelineData::doneKey, "1");
  r->defaultConf(true);
  return r;
}

bool isNow(const Record& r, long before) {
  long t = r->getStr(PipelineData::timeKey).toLong(-1);
  return t >= before && t <= long(time(nullptr));
}

class AggregatorProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(home().dir.empty()); }
  AggregatorProcessor p;
};

TEST_F(AggregatorProcessorTest, StreamsGrowEventsAndDoneFlushesAndForgets) {
  struct Step {
    const char* source;
    const char* raw;    // null: a done message
    const char* event;  // the `_raw` given on; null: dropped (10001)
    bool hasDone;
  } steps[] = {
      {"blocks", "BEGIN 1", nullptr, false},
      {"blocks", "  more", nullptr, false},
      {"single", "alone", "alone", false},  // another stream between
      {"blocks", "BEGIN 2", "BEGIN 1\n  more", false},
      {"blocks", nullptr, "BEGIN 2", true},  // flush with `_done` on it
      {"blocks", nullptr, nullptr, false},   // nothing open
      {"single", nullptr, nullptr, false},   // no merging: nothing to flush
  };
  int i = 0;
  for (const Step& s : steps) {
    Record r = line(s.source, s.raw);
    ASSERT_EQ(p.execute(r), s.event ? Processor::eOk : Processor::eDrop) << "step " << i;
    if (s.event) {
      EXPECT_EQ(r->getStr(PipelineData::rawKey), s.event) << "step " << i;
      EXPECT_EQ(r->contains(PipelineData::doneKey), s.hasDone) << "step " << i;
    }
    ++i;
  }
  EXPECT_EQ(p.streamCount(), 0u);
  auto sourceless = std::make_shared<PipelineData>();
  Record same = sourceless;
  EXPECT_EQ(p.execute(sourceless), Processor::eOk);
  EXPECT_EQ(sourceless, same);
  EXPECT_EQ(sourceless->size(), 0u);
}

TEST_F(AggregatorProcessorTest, UndatedEventsKeepTheirInputTimeElseTakeTheClock) {
  struct Case {
    const char* source;
    const char* time;  // `_time` from the input
    const char* meta;  // expected `_meta`
  } cases[] = {
      {"single", "1700000000", "timestamp::none"},
      {"single", nullptr, "timestamp::none"},
      {"single", "0", "timestamp::none"},  // kept, though useless as a reference
      {"noterms", "1700000000", ""},
      {"clock", "1700000000", "timestamp::none"},  // the clock, whatever the text or input say
  };
  // A stamp past what the index holds (after 2038-01-19) is no time either.
  Record far = line("java", "2099-03-01 10:00:00,000 far ahead", "1700000000");
  ASSERT_EQ(p.execute(far), Processor::eDrop);  // held open until the done message
  Record done = line("java", "", nullptr);
  done->put(PipelineData::doneKey, "1");
  ASSERT_EQ(p.execute(done), Processor::eOk);
  EXPECT_EQ(done->getStr(PipelineData::timeKey), "1700000000");
  EXPECT_EQ(done->getStr(PipelineData::metaKey), "timestamp::none");
  for (const Case& c : cases) {
    Record r = line(c.source, "2001-01-01 00:00:00 text", c.time);
    long before = long(time(nullptr));
    ASSERT_EQ(p.execute(r), Processor::eOk);
    if (c.time && strcmp(c.source, "clock") != 0)
      EXPECT_EQ(r->getStr(PipelineData::timeKey), c.time) << c.source;
    else
      EXPECT_TRUE(isNow(r, before)) << c.source;
    EXPECT_EQ(r->getStr(PipelineData::metaKey), c.meta) << c.source;
  }
}

// eventTime gives what putTimestamp puts in a record: the time text (the
// stated time as "%lu", else the input's) and the date terms, event after
// event of one stream (the parser carries its last stamp forward).
TEST_F(AggregatorProcessorTest, EventTimeMatchesTheRecordsTimeAndTerms) {
  struct Case {
    const char* source;
    const char* time;  // the input's `_time`
    std::vector<const char*> texts;
  } cases[] = {
      {"java", "1700000000",
       {"2026-11-24 13:05:57,004 first", "no stamp: the last one again", "2026-11-24 13:06:01,250 next",
        "2099-03-01 10:00:00,000 past what the index holds", "1969-12-31 23:59:59,000 before 1970"}},
      {"java", nullptr, {"no stamp and no input time", "2026-11-24 13:05:57,004 first"}},
      {"single", "1700000000", {"2001-01-01 00:00:00 undated here"}},
      {"noterms", "1700000000", {"no date terms"}},
  };
  for (const Case& c : cases) {
    Str conf = line(c.source, "x")->defaultConf(false);
    Aggregator forRecord(conf), forText(conf);
    for (const char* text : c.texts) {
      Record r = line(c.source, text, c.time);
      AggregatorProcessor::putTimestamp(forRecord, *r);
      int64_t seconds = -1;
      Str meta;
      const bool found = AggregatorProcessor::eventTime(forText, StrSegment(text), c.time, seconds, meta);
      Str timeText;
      if (found) PipelineData::appendTimeText((unsigned long)seconds, timeText);
      if (found || c.time) {
        EXPECT_EQ(found ? timeText : Str(c.time), r->getStr(PipelineData::timeKey)) << text;
      } else {
        EXPECT_TRUE(r->has(PipelineData::timeKey)) << text;  // the clock's
      }
      EXPECT_EQ(meta, r->getStr(PipelineData::metaKey)) << text;
    }
  }
  // One stated time, checked whole.
  Aggregator a(line("java", "x")->defaultConf(false));
  int64_t seconds = 0;
  Str meta = "kept ";
  ASSERT_TRUE(AggregatorProcessor::eventTime(a, StrSegment("2026-11-24 13:05:57,004 x"), "1700000000", seconds, meta));
  EXPECT_EQ(seconds, 1795525557);
  EXPECT_EQ(meta.substr(0, 36), "kept _subsecond:.004 date_second::57");
}

TEST_F(AggregatorProcessorTest, JavaTracesBecomeOneEventPerStampedBlockWithItsTime) {
  const char* lines[] = {
      "2026-11-24 13:05:57,004 ERROR [exec-7] com.example.PaymentService - failed",
      "com.example.GatewayException: Payment authorization failed for order 41235",
      "\tat com.example.GatewayClient.authorize(GatewayClient.java:131)",
      "Caused by: java.net.SocketTimeoutException: Read timed out",
      "2026-11-24 13:05:58,310 WARN  [scheduler-1] com.example.Inventory - slow",
      nullptr,
  };
  std::vector<Record> events;
  for (const char* l : lines) {
    Record r = line("java", l);
    if (p.execute(r) == Processor::eOk) events.push_back(r);
  }
  ASSERT_EQ(events.size(), 2u);
  EXPECT_NE(events[0]->getStr(PipelineData::rawKey).find("\nCaused by"), std::string::npos);
  EXPECT_EQ(events[0]->getStr(PipelineData::timeKey), "1795525557");
  EXPECT_EQ(events[1]->getStr(PipelineData::timeKey), "1795525558");
  EXPECT_EQ(events[0]->getStr(PipelineData::metaKey),
            "_subsecond:.004 date_second::57 date_hour::13 date_minute::5 date_year::2026 date_month::november "
            "date_mday::24 date_wday::tuesday date_zone::local");
}

}  // namespace
