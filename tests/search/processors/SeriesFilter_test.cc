// newseriesfilter: which series stay, what the others become, and every
// fault text.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::Row;

Row xb(const char* b, const char* v = nullptr) {
  Row r = {{"a", "x"}};
  if (b) r.push_back({"b", b});
  if (v) r.push_back({"v", v});
  return r;
}

// p x3, q x2, r x1; v of p is small, of r large
std::vector<Row> series() {
  return {xb("p", "1"), xb("p", "1"), xb("p", "1"), xb("q", "5"), xb("q", "7"), xb("r", "20")};
}

TEST(SeriesFilterTest, KeepsFoldsAndDrops) {
  std::vector<Row> in = {xb("p"), xb("p"), xb("p"), xb("q"), xb("q"), xb("r")};
  auto rows = [](std::vector<const char*> b) {
    std::vector<std::string> out;
    for (const char* n : b) out.push_back(std::string("a=x b=") + n);
    return out;
  };
  rowtest::runCommandCases({
      {"newseriesfilter a b sum(count) in top2", in, rows({"p", "p", "p", "q", "q", "OTHER"})},
      {"newseriesfilter a b sum(count) IN TOP2 otherstr=rest", in, rows({"p", "p", "p", "q", "q", "rest"})},
      {"newseriesfilter a b sum(count) notin top2", in, rows({"OTHER", "OTHER", "OTHER", "OTHER", "OTHER", "r"})},
      {"newseriesfilter a b sum(count) in bottom1 useother=f", in, rows({"r"})},
      {"newseriesfilter a b sum(count) > 1 useother=false", in, rows({"p", "p", "p", "q", "q"})},
      {"newseriesfilter a b sum(count) <= 2", in, rows({"OTHER", "OTHER", "OTHER", "q", "q", "r"})},
      {"newseriesfilter a b sum(count) != 2", in, rows({"p", "p", "p", "OTHER", "OTHER", "r"})},
      // ties are broken by series name
      {"newseriesfilter a b sum(count) in top1", {xb("q"), xb("p")}, rows({"OTHER", "p"})},
      // rows without a series are NULL, or dropped
      {"newseriesfilter a b sum(count) in top5", {xb("p"), xb(nullptr), xb("")}, rows({"p", "NULL", "NULL"})},
      {"newseriesfilter a b sum(count) in top5 nullstr=none", {xb("p"), xb(nullptr)}, rows({"p", "none"})},
      {"newseriesfilter a b sum(count) in top5 usenull=f", {xb("p"), xb(nullptr)}, rows({"p"})},
  });
}

TEST(SeriesFilterTest, RankFunctionsOverPlottedValues) {
  auto out = [](const char* p, const char* q, const char* r) {
    return std::vector<std::string>{
        std::string("a=x b=") + p + " v=1", std::string("a=x b=") + p + " v=1", std::string("a=x b=") + p + " v=1",
        std::string("a=x b=") + q + " v=5", std::string("a=x b=") + q + " v=7", std::string("a=x b=") + r + " v=20"};
  };
  rowtest::runCommandCases({
      {"newseriesfilter a b max(avg(v)) in top1", series(), out("OTHER", "OTHER", "r")},
      {"newseriesfilter a b sum(sum(v)) in top2", series(), out("OTHER", "q", "r")},
      {"newseriesfilter a b min(max(v)) in bottom1", series(), out("p", "OTHER", "OTHER")},
      {"newseriesfilter a b avg(count) >= 2", series(), out("p", "q", "OTHER")},
      {"newseriesfilter a b sum(avg(v)) < 6.5", series(), out("p", "q", "OTHER")},
  });
}

TEST(SeriesFilterTest, Faults) {
  std::vector<Row> in = {xb("p")};
  auto e = [](const std::string& text) { return "Error in 'newseriesfilter' command: " + text; };
  const std::string usage =
      "Invalid usage, expected: newseriesfilter <xfield> <seriesfield> <aggregator> <comp> <criteria> [options]";
  rowtest::runCommandCases({
      {"newseriesfilter", in, {e(usage)}},
      {"newseriesfilter a b sum(count) in", in, {e(usage)}},
      {"newseriesfilter a b sum(count) in top1 extra", in, {e("Invalid argument: 'extra'")}},
      {"newseriesfilter \"\" b sum(count) in top1", in, {e("Invalid usage")}},
      {"newseriesfilter a b sum(count) in top0", in, {e("Invalid usage")}},
      {"newseriesfilter a b sum(count) in 3", in, {e("Invalid usage")}},
      {"newseriesfilter a b sum in top1", in, {e("Invalid aggregator field: 'sum'")}},
      {"newseriesfilter a b foo(count) in top1", in, {e("Invalid aggregator field: 'foo(count)'")}},
      {"newseriesfilter a b sum() in top1", in, {e("Invalid aggregator field: 'sum()'")}},
      {"newseriesfilter a b sum(count) like top1", in, {e("Invalid comparator: 'like'")}},
      {"newseriesfilter a b sum(count) > lots", in, {e("Invalid numerical threshold: 'lots'")}},
      {"newseriesfilter a b sum(count) > top1", in, {e("Invalid numerical threshold: 'top1'")}},
      {"newseriesfilter a b sum(foo(v)) in top1", in,
       {e("Exception caught from subcommand: Error in 'stats' command: Invalid argument 'foo(v)'")}},
  });
}

}  // namespace
