// The "GET" modules: the ranges of events and their clipping, the order of
// the events fetched, the 100000 cap, summaries, the word lists, and the
// malformed-range texts of every module.
#include "pipeline/indexer/GetEvents.h"

#include <gtest/gtest.h>

#include <functional>

#include "QueryModuleTestIndex.h"
#include "pipeline/indexer/GetEventTags.h"
#include "pipeline/indexer/GetFormats.h"
#include "pipeline/indexer/GetHostTags.h"
#include "pipeline/indexer/GetHosts.h"
#include "pipeline/indexer/GetSourceTypes.h"
#include "pipeline/indexer/GetSources.h"
#include "pipeline/indexer/GetTypes.h"

namespace {

const int64_t kBase = 1700000000;

class GetEventsTest : public ::testing::Test {
 protected:
  // "event 0" .. "event 4": even ones on web1, odd ones on web2; the last
  // one from b.log.
  void SetUp() override {
    for (int i = 0; i < 5; ++i) {
      Str raw = Str::fromFormat("event %d", i);
      t.put(raw.c_str(), kBase + i, i % 2 ? "web2" : "web1", i < 4 ? "a.log" : "b.log", "app");
    }
    ids = t.ids();
    ASSERT_EQ(ids.size(), 5u);
  }

  // The raw texts fetched, "(missing)" for an event that could not be read.
  static std::vector<Str> raws(Query& q) {
    std::vector<Str> out;
    for (const auto& e : q.resultMap()["events"])
      out.push_back(e->has(PipelineData::rawKey) ? e->getStr(PipelineData::rawKey) : Str("(missing)"));
    return out;
  }

  // Rows of a fetched list as "word count code", and the list's total.
  static std::vector<Str> rows(Query& q, const Str& kind, Str* total = nullptr) {
    std::vector<Str> out;
    for (const auto& r : q.resultMap()[kind]) {
      out.push_back(r->getStr(PipelineData::rawKey) + " " + r->getStr(GetModule::kCountKey) + " " +
                    r->getStr(GetModule::kCodeKey));
      if (total) *total = r->getStr(GetModule::kTotalKey);
    }
    return out;
  }

  QueryModuleTestIndex t;
  std::vector<ValueWrapper> ids;
};

TEST_F(GetEventsTest, RangesAreClippedToTheIdsFound) {
  const struct {
    const char* range;
    std::vector<Str> expected;
  } rows[] = {
      {"0-0", {"event 4"}},
      {"4-4", {"event 0"}},
      {"1-3", {"event 3", "event 2", "event 1"}},
      {"3-10", {"event 1", "event 0"}},
      {"00-01", {"event 4", "event 3"}},
      {"5-9", {}},
      {"100-100", {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.range);
    auto q = t.query(ids);
    q->resultMap()["events"].push_back(std::make_shared<PipelineData>());  // a stale event from an earlier run
    QueryModuleTestIndex::run<GetEvents>(*q, {{"events", r.range}});
    EXPECT_EQ(raws(*q), r.expected);
  }
}

// The index is read in address order, but the events keep the order of the
// ids, and each carries its place, time and meta data.
TEST_F(GetEventsTest, EventsKeepTheOrderOfTheIds) {
  auto q = t.query({ids[3], ids[0], ids[4], ids[1]});
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-3"}});
  EXPECT_EQ(raws(*q), (std::vector<Str>{"event 1", "event 4", "event 0", "event 3"}));
  const PipelineData& e = *q->resultMap()["events"][1];
  EXPECT_EQ(e.getStr(PipelineData::cdKey), ids[0].cd());
  EXPECT_EQ(e.getStr(PipelineData::timeKey), ToString(long(kBase + 4)));
  EXPECT_EQ(e.getStr(PipelineData::hostField), "web1");
  EXPECT_EQ(e.getStr(PipelineData::sourceField), "b.log");
  EXPECT_EQ(e.getStr(PipelineData::sourceTypeField), "app");
  EXPECT_EQ(e.getStr(PipelineData::metaKey), "host::web1 source::b.log sourcetype::app");
}

TEST_F(GetEventsTest, UnreadableIdsKeepTheirPlace) {
  ValueWrapper lost = ids[2];
  lost.bucketId = 99;
  auto q = t.query({ids[0], lost, ids[1]});
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-2"}});
  EXPECT_EQ(raws(*q), (std::vector<Str>{"event 4", "(missing)", "event 3"}));
  EXPECT_EQ(q->resultMap()["events"][1]->getStr(PipelineData::cdKey), "99:" + ToString((unsigned long)lost.address));
}

// At most 100000 events from the start of the range, and never past the
// last id found.
TEST_F(GetEventsTest, AtMostOneHundredThousandEvents) {
  std::vector<ValueWrapper> many;
  for (size_t i = 0; i < 100010; ++i) many.push_back(ids[i % 5]);
  auto q = t.query(many);
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-150000"}});
  ASSERT_EQ(q->resultMap()["events"].size(), GetEvents::kMaxEvents);
  EXPECT_EQ(q->resultMap()["events"].back()->getStr(PipelineData::cdKey), ids[99999 % 5].cd());

  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "20-100050"}});
  ASSERT_EQ(q->resultMap()["events"].size(), 99990u);
  EXPECT_EQ(q->resultMap()["events"].front()->getStr(PipelineData::rawKey), "event 4");
  EXPECT_EQ(q->resultMap()["events"].back()->getStr(PipelineData::rawKey), "event 0");
}

TEST_F(GetEventsTest, SummarizeCountsTheEventsFetched) {
  auto q = t.query(ids);
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-4"}, {"summarize", "yes"}});
  Str total;
  EXPECT_EQ(rows(*q, "hosts", &total), (std::vector<Str>{"web1 3 0", "web2 2 1"}));
  EXPECT_EQ(total, "2");
  EXPECT_EQ(rows(*q, "sources"), (std::vector<Str>{"a.log 4 0", "b.log 1 1"}));
  EXPECT_EQ(rows(*q, "sourcetypes"), (std::vector<Str>{"app 5 0"}));

  auto part = t.query(ids);
  QueryModuleTestIndex::run<GetEvents>(*part, {{"events", "1-2"}, {"summarize", "yes"}});
  EXPECT_EQ(rows(*part, "hosts"), (std::vector<Str>{"web1 1 0", "web2 1 1"}));
  EXPECT_EQ(rows(*part, "sources"), (std::vector<Str>{"a.log 2 0"}));

  auto none = t.query(ids);
  QueryModuleTestIndex::run<GetEvents>(*none, {{"events", "0-4"}, {"summarize", "no"}});
  EXPECT_EQ(none->resultMap().count("hosts"), 0u);
}

// Word lists: most events first, cut to the range, the total of the whole
// list on every row; words whose events are all gone are left out. Lists
// without a store are empty.
TEST_F(GetEventsTest, WordLists) {
  auto q = t.query(ids);
  QueryModuleTestIndex::run<GetHosts>(*q, {{"hosts", "0-0"}});
  Str total;
  EXPECT_EQ(rows(*q, "hosts", &total), (std::vector<Str>{"web1 3 0"}));
  EXPECT_EQ(total, "2");
  QueryModuleTestIndex::run<GetHosts>(*q, {{"hosts", "1-5"}});
  EXPECT_EQ(rows(*q, "hosts"), (std::vector<Str>{"web2 2 1"}));
  QueryModuleTestIndex::run<GetSources>(*q, {{"sources", "0-9"}});
  EXPECT_EQ(rows(*q, "sources"), (std::vector<Str>{"a.log 4 0", "b.log 1 1"}));
  QueryModuleTestIndex::run<GetSourceTypes>(*q, {{"sourcetypes", "0-9"}});
  EXPECT_EQ(rows(*q, "sourcetypes"), (std::vector<Str>{"app 5 0"}));

  ASSERT_EQ(t.index().deleteByKeyword("host::web1", INT32_MIN, INT32_MAX, true), 3u);
  QueryModuleTestIndex::run<GetHosts>(*q, {{"hosts", "0-9"}});
  EXPECT_EQ(rows(*q, "hosts", &total), (std::vector<Str>{"web2 2 1"}));
  EXPECT_EQ(total, "1");

  QueryModuleTestIndex::run<GetTypes>(*q, {{"types", "0-9"}});
  QueryModuleTestIndex::run<GetEventTags>(*q, {{"eventtags", "0-9"}});
  QueryModuleTestIndex::run<GetHostTags>(*q, {{"hosttags", "0-9"}});
  QueryModuleTestIndex::run<GetFormats>(*q, {{"formats", "0-9"}});
  for (const char* kind : {"types", "eventtags", "hosttags", "formats"}) {
    EXPECT_EQ(q->resultMap().count(kind), 1u) << kind;
    EXPECT_TRUE(q->resultMap()[kind].empty()) << kind;
  }
}

TEST_F(GetEventsTest, MalformedRanges) {
  using Runner = std::function<Str(Query&, const Str&)>;
  auto runner = [](auto* tag, const char* keyword) -> Runner {
    using T = std::remove_pointer_t<decltype(tag)>;
    return [keyword](Query& q, const Str& value) { return QueryModuleTestIndex::failure<T>(q, {{keyword, value}}); };
  };
  const struct {
    Runner run;
    const char* text;
  } modules[] = {
      {runner((GetEvents*)nullptr, "events"), "Events malformed. Must be events::start-end"},
      {runner((GetHosts*)nullptr, "hosts"), "Hosts malformed. Must be hosts::start-end"},
      {runner((GetSourceTypes*)nullptr, "sourcetypes"), "Sourcetypes malformed. Must be sourcetypes::start-end"},
      {runner((GetSources*)nullptr, "sources"), "sources malformed must be sources::start-end"},
      {runner((GetTypes*)nullptr, "types"), "types malformed must be types::start-end"},
      {runner((GetEventTags*)nullptr, "eventtags"), "Event tags malformed. must be eventtags::start-end"},
      {runner((GetHostTags*)nullptr, "hosttags"), "Host tags malformed. Must be hosttags::start-end"},
      {runner((GetFormats*)nullptr, "formats"), "Event tags formatted incorrectly. Must be eventtags::start-end"},
  };
  const char* values[] = {"", "abc", "1-", "-1", "5-2", "1-2x", "x1-2", "1 - 2", "1-2-3", "99999999999999999999999-1"};
  auto q = t.query(ids);
  for (const auto& m : modules) {
    for (const char* v : values) {
      SCOPED_TRACE(Str(m.text) + " / " + v);
      EXPECT_EQ(m.run(*q, v), m.text);
    }
    EXPECT_EQ(m.run(*q, "0-1"), "");
  }
}

TEST_F(GetEventsTest, UnknownIndex) {
  auto q = t.query(ids, "nosuch");
  EXPECT_EQ(QueryModuleTestIndex::failure<GetEvents>(*q, {{"events", "0-1"}}), "No domain nosuch could be found");
  EXPECT_EQ(QueryModuleTestIndex::failure<GetHosts>(*q, {{"hosts", "0-1"}}), "No domain nosuch could be found");
}

}  // namespace
