#include "pipeline/analysis/LinePassThroughProcessor.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

std::shared_ptr<PipelineData> line(const char* channel, const char* raw) {
  auto r = std::make_shared<PipelineData>();
  r->put(PipelineData::channelKey, channel);
  r->put(PipelineData::rawKey, raw);
  return r;
}

TEST(LinePassThroughProcessor, LinesTakeTheirStampOrTheOneAboveOnTheirChannel) {
  LinePassThroughProcessor p;
  struct Case {
    const char* channel;
    const char* raw;
    const char* time;  // null: the arrival time
  } cases[] = {
      {"a", "  at com.example.Main (no stamp before it)", nullptr},
      {"a", "2026-11-23T13:05:56Z first", "1795439156"},
      {"a", "  at com.example.Main.run(Main.java:10)", "1795439156"},
      {"b", "continuation on another channel", nullptr},
      {"b", "2026-11-23 13:06:00 second", "1795439160"},
      {"a", "still the first channel's stamp", "1795439156"},
  };
  for (const Case& c : cases) {
    auto r = line(c.channel, c.raw);
    int64_t before = time(nullptr);
    ASSERT_EQ(p.execute(r), Processor::eOk) << c.raw;
    long t = r->getStr(PipelineData::timeKey).toLong(-1);
    if (c.time)
      EXPECT_EQ(r->getStr(PipelineData::timeKey), Str(c.time)) << c.raw;
    else
      EXPECT_TRUE(t >= before && t <= time(nullptr) + 1) << c.raw;
  }
}

TEST(LinePassThroughProcessor, RecordsWithATimePassAndDoneEndsTheChannel) {
  LinePassThroughProcessor p;
  auto seek = line("a", "deadbeef initcrc::1 seekcrc::2 seekptr::3");
  seek->put(PipelineData::timeKey, "42");
  ASSERT_EQ(p.execute(seek), Processor::eOk);
  EXPECT_EQ(seek->getStr(PipelineData::timeKey), "42");

  auto first = line("a", "2026-11-23T13:05:56Z x");
  p.execute(first);
  auto done = std::make_shared<PipelineData>();
  done->put(PipelineData::channelKey, "a");
  done->put(PipelineData::doneKey, "1");
  EXPECT_EQ(p.execute(done), Processor::eDrop);
  auto after = line("a", "no stamp");
  int64_t before = time(nullptr);
  p.execute(after);
  EXPECT_GE(after->getStr(PipelineData::timeKey).toLong(0), before) << "the channel's stamp was forgotten";
}

}  // namespace
