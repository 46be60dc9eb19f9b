// Rows made from events carry the fields of the shipped search-time rules of
// their source type (REPORT- rules of props.conf, then the key=value pairs
// of the text), never overwrite the event's own fields, and carry none of
// them when extraction is off.
#include <gtest/gtest.h>

#include "../ScratchHome.h"
#include "pipeline/indexer/search/EventRowWriter.h"
#include "search/SearchResults.h"

namespace {

struct Case {
  const char* sourceType;
  const char* raw;
  std::vector<std::pair<const char*, const char*>> want;  // value "" : the field must be absent
};

TEST(EventRowWriter, ShippedRulesGiveTheFieldsOfEachSourceType) {
  ScratchHome home("rowwriter");
  ASSERT_TRUE(home.ok());
  const Case cases[] = {
      {"web_access",
       "203.0.113.7 - - [16/Nov/2026:00:01:10 +0000] \"GET /category/desks HTTP/1.1\" 404 12173 "
       "\"https://shop.example.com/\" \"Mozilla/5.0 (X11)\" 35",
       {{"clientip", "203.0.113.7"},
        {"method", "GET"},
        {"uri", "/category/desks"},
        {"status", "404"},
        {"bytes", "12173"},
        {"duration_ms", "35"},
        {"useragent", "Mozilla/5.0 (X11)"}}},
      {"app_kv",
       "2026-11-16T00:01:43.400Z level=INFO component=orders user=alice status=ok duration_ms=33",
       {{"component", "orders"}, {"status", "ok"}, {"duration_ms", "33"}, {"level", "INFO"}}},
      // The event's own host wins over a "host" member of its text.
      {"app_json",
       "{\"time\":\"2026-11-16T00:04:46.206Z\",\"host\":\"elsewhere\",\"service\":\"orders\",\"order_id\":43121,"
       "\"latency_ms\":46,\"success\":true,\"msg\":\"label \\\"printed\\\"\"}",
       {{"service", "orders"}, {"order_id", "43121"}, {"latency_ms", "46"}, {"success", "true"}, {"host", "web-9"}}},
      {"syslog",
       "Nov 16 00:00:01 web-9 sshd[4242]: Accepted publickey for deploy",
       {{"process", "sshd"}, {"pid", "4242"}}},
      // A source type with no rules: the pairs of the text only.
      {"no_rules_here", "GET /x status=500 took=3ms", {{"status", "500"}, {"took", "3ms"}, {"clientip", ""}}},
  };
  for (bool extract : {true, false}) {
    SearchResults results;
    EventRowWriter writer("main", extract);
    writer.bind(results);
    uint64_t serial = 0;
    for (const Case& c : cases) {
      DataWrapper event;
      event.raw = c.raw;
      event.time = 1794787200;
      event.host = "web-9";
      event.source = "/var/log/x.log";
      event.sourceType = c.sourceType;
      SearchResult* row = writer.append(results, event, serial++);
      ASSERT_NE(row, nullptr);
      for (const auto& [key, value] : c.want) {
        Str got;
        bool has = row->getValue(Str(key), got);
        if (Str(key) == "host") {
          EXPECT_EQ(got, value) << c.sourceType;
        } else if (extract && *value) {
          EXPECT_TRUE(has) << c.sourceType << " lacks " << key;
          EXPECT_EQ(got, value) << c.sourceType << " " << key;
        } else {
          EXPECT_FALSE(has) << c.sourceType << " has " << key << "=" << got << (extract ? "" : " with extraction off");
        }
      }
    }
  }
}

}  // namespace
