// The accumulator of the statistics commands: number reading, medians and
// percentiles against a brute-force model, variance against the two-pass
// form, limits, and the intermediate entries read back.
#include <gtest/gtest.h>

#include <math.h>
#include <stdlib.h>

#include <algorithm>
#include <random>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/StatsInclOptions.h"
#include "search/processors/StatsKeyInfo.h"

namespace {

StatsInclOptions opts(std::vector<StatsFunc> fs, std::vector<unsigned> percs = {}) {
  StatsInclOptions o;
  for (StatsFunc f : fs) o.include(f, StatsInclOptions::funcName(f));
  for (unsigned p : percs) o.includePerc(p, "p" + std::to_string(p));
  return o;
}

// The written results as "name=value" in name order.
std::string written(const StatsKeyInfo& k, const StatsInclOptions& o) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  k.writeResult(*r, o);
  std::string out;
  for (auto& kv : rs.getKeyMap()) {
    const Str* v = r->getValuePtr(kv.second);
    if (!v) continue;
    if (!out.empty()) out += ' ';
    out += kv.first + "=" + *v;
  }
  return out;
}

TEST(StatsKeyInfoTest, ReadsNumbersAndPlaces) {
  struct Case {
    const char* text;
    bool number;
    unsigned places;
  } cases[] = {
      {"3", true, 0},      {"1.50", true, 2},  {"-0.5", true, 1},  {"1.5e3", true, 0},  {"1e-3", true, 3},
      {"1.25e-2", true, 4}, {" 7", true, 0},   {".5", true, 1},    {"", false, 0},      {"nan", false, 0},
      {"-inf", false, 0},  {"0x1f", false, 0}, {"1.2.3", false, 1}, {"12abc", false, 0}, {"1e999", false, 0},
  };
  for (auto& c : cases) {
    double d;
    EXPECT_EQ(StatsKeyInfo::parseNumber(c.text, d), c.number) << c.text;
    if (c.number) {
      EXPECT_EQ(StatsKeyInfo::decimalsOf(c.text), c.places) << c.text;
    }
  }
}

TEST(StatsKeyInfoTest, FunctionNames) {
  struct Case {
    const char* name;
    bool known;
    StatsFunc func;
    unsigned perc;
  } cases[] = {
      {"COUNT", true, SF_COUNT, 0}, {"mean", true, SF_AVG, 0},   {"distinct_count", true, SF_DC, 0},
      {"p1", true, SF_PERC, 1},     {"perc99", true, SF_PERC, 99}, {"P50", true, SF_PERC, 50},
      {"p100", true, SF_PERC, 0},   {"perc0", true, SF_PERC, 0},   {"p-5", true, SF_PERC, 0},
      {"p", false, SF_COUNT, 0},    {"pabc", false, SF_COUNT, 0},  {"avgs", false, SF_COUNT, 0},
  };
  for (auto& c : cases) {
    StatsFunc f = SF_COUNT;
    unsigned p = 7;
    EXPECT_EQ(StatsInclOptions::lookupFunc(c.name, f, p), c.known) << c.name;
    if (!c.known) continue;
    EXPECT_EQ(f, c.func) << c.name;
    EXPECT_EQ(p, c.perc) << c.name;
  }
  EXPECT_EQ(StatsInclOptions::processArgSet("Default").size(), 6u);
  EXPECT_EQ(StatsInclOptions::processArgSet("all").size(), 15u);
}

TEST(StatsKeyInfoTest, MedianAndPercentilesMatchBruteForce) {
  std::mt19937 rng(11);
  StatsInclOptions o = opts({SF_MEDIAN, SF_VAR, SF_VARP}, {1, 25, 50, 90, 99});
  for (int round = 0; round < 200; ++round) {
    size_t n = 1 + rng() % 60;
    StatsKeyInfo k(o, StatsLimits());
    std::vector<long> vals;
    for (size_t i = 0; i < n; ++i) {
      vals.push_back(static_cast<long>(rng() % 2001) - 1000);
      k.addValue(std::to_string(vals.back()));
    }
    std::vector<long> s = vals;
    std::sort(s.begin(), s.end());
    double median = n % 2 ? s[n / 2] : (s[n / 2 - 1] + s[n / 2]) / 2.0;
    double mean = 0, ss = 0;
    for (long v : vals) mean += v;
    mean /= n;
    for (long v : vals) ss += (v - mean) * (v - mean);
    std::string want;
    auto add = [&](const std::string& kv) { want += (want.empty() ? "" : " ") + kv; };
    Str med = n % 2 || (s[n / 2 - 1] + s[n / 2]) % 2 == 0 ? Str::fromFormat("%.0f", median)
                                                         : Str::fromFormat("%.1f", median);
    add("median=" + med);
    for (unsigned p : {1u, 25u, 50u, 90u, 99u}) add("p" + std::to_string(p) + "=" + std::to_string(s[p * n / 100]));
    add("var=" + std::string(Str::fromFormat("%f", n > 1 ? ss / (n - 1) : 0.0)));
    add("varp=" + std::string(Str::fromFormat("%f", ss / n)));
    // name order puts "median" first and "p.." before "var"
    EXPECT_EQ(written(k, o), want) << "round " << round;
  }
}

TEST(StatsKeyInfoTest, VarianceFromSumsAgreesWithVector) {
  std::mt19937 rng(5);
  for (int round = 0; round < 50; ++round) {
    StatsKeyInfo sums(opts({SF_VAR}), StatsLimits());
    std::vector<double> v;
    for (int i = 0; i < 1 + round; ++i) {
      double d = (static_cast<int>(rng() % 10000) - 5000) / 100.0;
      v.push_back(d);
      sums.addValue(Str::fromFormat("%.2f", d));
    }
    // one pass over sums against two passes over the numbers: equal up to rounding
    std::string w = written(sums, opts({SF_VAR}));
    ASSERT_EQ(w.substr(0, 4), "var=");
    EXPECT_NEAR(strtod(w.c_str() + 4, nullptr), StatsKeyInfo::var(v), 1e-5 + 1e-9 * StatsKeyInfo::var(v));
  }
  EXPECT_EQ(StatsKeyInfo::var({}), 0);
  EXPECT_EQ(StatsKeyInfo::varp({}), 0);
  EXPECT_EQ(StatsKeyInfo::varp({3}), 0);
}

TEST(StatsKeyInfoTest, EmptyKeyWritesOnlyCounts) {
  StatsKeyInfo k(opts({SF_COUNT, SF_DC, SF_SUM, SF_MIN, SF_FIRST, SF_MEDIAN}), StatsLimits());
  EXPECT_EQ(written(k, opts({SF_COUNT, SF_DC, SF_SUM, SF_MIN, SF_FIRST, SF_MEDIAN})), "count=0 dc=0");
}

TEST(StatsKeyInfoTest, Limits) {
  StatsLimits l;
  l.maxvalues = 2;
  l.maxvaluesize = 2;
  StatsInclOptions o = opts({SF_DC, SF_LIST, SF_COUNT, SF_FIRST});
  StatsKeyInfo k(o, l);
  for (const char* v : {"abc", "abd", "b", "c"}) k.addValue(v);
  EXPECT_TRUE(k.limitReached());
  EXPECT_EQ(written(k, o), "count=4 dc=2 first=ab list=ab\nab");
  StatsKeyInfo fine(o, StatsLimits());
  fine.addValue("a");
  EXPECT_FALSE(fine.limitReached());
}

// Adds `vals` to one accumulator, and in `parts` pieces through the
// intermediate entries to another; the written results must agree.
TEST(StatsKeyInfoTest, EntriesCarryTheWholeState) {
  StatsInclOptions o = opts({SF_COUNT, SF_DC, SF_AVG, SF_STDEV, SF_SUM, SF_MIN, SF_MAX, SF_MEDIAN, SF_MODE,
                             SF_FIRST, SF_LAST, SF_RANGE, SF_VALUES, SF_LIST},
                            {10, 95});
  std::vector<std::vector<std::string>> inputs = {
      {"1", "2.25", "-3", "2.25", "10"},
      {"b", "a", "1", "c", "a"},
      {"5", "x"},
      {"0.001", "1e2", "7"},
  };
  for (auto& vals : inputs)
    for (size_t parts : {1u, 2u, 3u}) {
      StatsKeyInfo whole(o, StatsLimits()), merged(o, StatsLimits());
      for (auto& v : vals) whole.addValue(v);
      size_t per = (vals.size() + parts - 1) / parts;
      for (size_t start = 0; start < vals.size(); start += per) {
        StatsKeyInfo part(o, StatsLimits());
        for (size_t i = start; i < std::min(vals.size(), start + per); ++i) part.addValue(vals[i]);
        std::vector<StatsKeyInfo::Entry> entries;
        part.writePrestats(entries);
        for (auto& e : entries)
          ASSERT_EQ(merged.mergeEntry(e.type, e.hasNum ? &e.num : nullptr, e.hasStr ? &e.str : nullptr), 0);
      }
      EXPECT_EQ(written(merged, o), written(whole, o)) << vals[0] << " in " << parts;
    }
}

TEST(StatsKeyInfoTest, BadEntries) {
  Str one("1"), word("w"), half("1.5");
  struct Case {
    const char* type;
    const Str* num;
    const Str* str;
    int want;
  } cases[] = {
      {"count", &one, nullptr, 0}, {"what", &one, nullptr, 1},  {"sum", nullptr, &word, 2},
      {"dv", &one, nullptr, 2},    {"last", &one, nullptr, 2},  {"sum", &word, nullptr, 3},
      {"count", &half, nullptr, 4}, {"dv", &half, &word, 4},    {"li", nullptr, &word, 0},
  };
  for (auto& c : cases) {
    StatsKeyInfo k(opts({SF_LIST}), StatsLimits());
    EXPECT_EQ(k.mergeEntry(c.type, c.num, c.str), c.want) << c.type;
  }
}

}  // namespace
