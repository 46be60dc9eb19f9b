// The unit words of time spans: every spelling, any case, and the words
// that name nothing.
#include "util/TimeUnit.h"

#include <gtest/gtest.h>

TEST(TimeUnit, WordsNameTheirUnitInAnyCase) {
  struct Row {
    const char* word;
    TimeUnit unit;
  } rows[] = {
      {"s", TimeUnit::kSecond},   {"SECONDS", TimeUnit::kSecond}, {"m", TimeUnit::kMinute},
      {"Mins", TimeUnit::kMinute}, {"hr", TimeUnit::kHour},       {"d", TimeUnit::kDay},
      {"weeks", TimeUnit::kWeek}, {"mon", TimeUnit::kMonth},      {"mons", TimeUnit::kMonth},
      {"q", TimeUnit::kQuarter},  {"yr", TimeUnit::kYear},        {"Years", TimeUnit::kYear},
  };
  for (const Row& r : rows) {
    TimeUnit u = TimeUnit::kYear == r.unit ? TimeUnit::kSecond : TimeUnit::kYear;
    EXPECT_TRUE(timeUnitByName(r.word, u)) << r.word;
    EXPECT_EQ(u, r.unit) << r.word;
  }
  for (const char* bad : {"", "mo", "secondss", "minute ", "ms", "month s"}) {
    TimeUnit u = TimeUnit::kDay;
    EXPECT_FALSE(timeUnitByName(bad, u)) << "'" << bad << "'";
    EXPECT_EQ(u, TimeUnit::kDay) << "untouched on failure";
  }
}
