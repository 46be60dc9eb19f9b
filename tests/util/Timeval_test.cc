#include "util/Timeval.h"

#include <gtest/gtest.h>

#include "util/StrSegment.h"

namespace {

TEST(Timeval, AdditionNormalisesAndSaturates) {
  Timeval t(1, 999999);
  t.addMsec(1);
  EXPECT_EQ(t, Timeval(2, 999));
  t = Timeval(0, 0);
  t.addMsec(-1);
  EXPECT_EQ(t, Timeval(-1, 999000));
  t.addSec(1);
  EXPECT_EQ(t, Timeval(0, 999000));
  t.addUsec(1000);
  EXPECT_EQ(t, Timeval(1, 0));

  t = Timeval(INT64_MAX - 1, 0);
  t.addSec(5);
  EXPECT_TRUE(t.isMax());
  t = Timeval(INT64_MAX, 0);
  t.addMsec(INT64_MAX);
  EXPECT_TRUE(t.isMax());
  t.setToMax();
  t.addMsec(1);
  EXPECT_TRUE(t.isMax());
  t = Timeval(INT64_MIN + 1, 0);
  t.addSec(-5);
  EXPECT_TRUE(t.isMin());
}

TEST(Timeval, DifferencesRoundMillisUpAndClamp) {
  const struct {
    Timeval a, b;
    int64_t msec, usec;
  } cases[] = {
      {{0, 1}, {0, 0}, 1, 1},          // 1 us is 1 ms
      {{0, 0}, {0, 1}, 0, -1},         // rounding up toward +infinity
      {{1, 0}, {0, 0}, 1000, 1000000},
      {{0, 1500}, {0, 0}, 2, 1500},
      {{0, 0}, {0, 1500}, -1, -1500},
      {{5, 0}, {3, 999999}, 1001, 1000001},
      {{-1, 0}, {1, 0}, -2000, -2000000},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Timeval::msecDifference(c.a, c.b), c.msec) << c.a.sec() << "." << c.a.usec();
    EXPECT_EQ(Timeval::usecDifference(c.a, c.b), c.usec);
  }
  Timeval lo, hi;
  lo.setToMin();
  hi.setToMax();
  EXPECT_EQ(Timeval::usecDifference(hi, lo), INT64_MAX);
  EXPECT_EQ(Timeval::usecDifference(lo, hi), INT64_MIN);
  EXPECT_EQ(Timeval::msecDifference(hi, lo), INT64_MAX);
}

TEST(Timeval, DescribeDifferenceTable) {
  const struct {
    Timeval a, b;
    const char* text;
  } cases[] = {
      {{10, 0}, {10, 0}, "0 microseconds"},
      {{10, 1}, {10, 0}, "1 microsecond"},
      {{10, 0}, {10, 1}, "-1 microsecond"},
      {{0, 3000}, {0, 0}, "3000 microseconds"},
      {{0, 3001}, {0, 0}, "3.001 milliseconds"},
      {{0, 5000}, {0, 0}, "5 milliseconds"},  // both on whole milliseconds
      {{2, 500000}, {0, 0}, "2500 milliseconds"},
      {{0, 45500}, {0, 1}, "45.50 milliseconds"},
      {{3, 500000}, {0, 0}, "3.500 seconds"},
      {{0, 0}, {3, 500000}, "-3.500 seconds"},
      {{45, 0}, {0, 0}, "45.00 seconds"},
      {{150, 0}, {0, 0}, "150.0 seconds"},
      {{9, 960000}, {0, 0}, " 9.96 seconds"},  // two decimals from 9.95, width 5
      {{3600, 0}, {0, 0}, "3600.0 seconds"},   // an hour is still below the hours limit
      {{36000, 0}, {0, 0}, "10.00 hours"},
      {{9000, 0}, {0, 0}, "2.500 hours"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Timeval::describeDifference(c.a, c.b), c.text) << c.text;
}

TEST(Timeval, UnixTimeTextTable) {
  const struct {
    const char* text;
    bool ok;
    int64_t sec;
    int32_t usec;
  } cases[] = {
      {"123", true, 123, 0},
      {"1.5", true, 1, 500000},
      {"1.000001", true, 1, 1},
      {"1.1234567", true, 1, 123456},  // the seventh digit adds nothing
      {"0.999999999", true, 0, 999999},
      {"9223372036854775807", true, INT64_MAX, 0},
      {"9223372036854775808", false, 0, 0},
      {"", false, 0, 0},
      {"1.", false, 0, 0},
      {".5", false, 0, 0},
      {"-1", false, 0, 0},
      {"1a", false, 0, 0},
      {"1.2.3", false, 0, 0},
      {" 1", false, 0, 0},
  };
  for (const auto& c : cases) {
    Timeval t(77, 7);
    EXPECT_EQ(t.setToUnixTime(c.text), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(t, Timeval(c.sec, c.usec)) << c.text;
    }
  }
  const struct {
    Timeval t;
    unsigned digits;
    const char* text;
  } renders[] = {
      {{12, 345678}, 0, "12"},         {{12, 345678}, 3, "12.345"},
      {{12, 345678}, 8, "12.34567800"}, {{5, 7}, 6, "5.000007"},
      {{-3, 0}, 1, "-3.0"},
  };
  for (const auto& r : renders) {
    Str out("t=");
    r.t.renderUnixTime(out, r.digits);
    EXPECT_EQ(out, Str("t=") + r.text);
  }
  char buf[10];
  EXPECT_EQ(Timeval(0, 42).renderSubseconds(buf, 4), 4u);
  EXPECT_STREQ(buf, "0000");
}

TEST(Timeval, SerializeLayoutAndRoundTrip) {
  EXPECT_EQ(Timeval(0, 0).serialize(), "0AR11480000000");
  EXPECT_EQ(Timeval(1700000000, 123456).serialize(), "0CDM90G03LNIG0");
  Timeval hi;
  hi.setToMax();
  EXPECT_EQ(hi.serialize(), "VVVVVVVVTPLHGO");  // seconds capped at 40 bits
  EXPECT_EQ(Timeval(INT64_MIN, 0).serialize(), "00000000000000");

  const Timeval samples[] = {{0, 0}, {1, 1}, {1700000000, 123456}, {1234567890, 999999},
                             {32503680000, 500000}};
  for (const auto& t : samples) {
    Timeval back;
    ASSERT_TRUE(back.resurrect(t.serialize()));
    EXPECT_EQ(back, t) << t.sec();
  }
  const Timeval now = Timeval::now();
  Timeval back;
  ASSERT_TRUE(back.resurrect(now.serialize()));
  EXPECT_EQ(back, now);
}

TEST(Timeval, ResurrectRejectsAndRounds) {
  Timeval t(5, 5);
  EXPECT_FALSE(t.resurrect("0AR1148000000"));    // 13 characters
  EXPECT_FALSE(t.resurrect("0AR114800000000"));  // 15
  EXPECT_FALSE(t.resurrect("0ar11480000000"));   // lower case is no digit
  EXPECT_FALSE(t.resurrect("0AR11480W00000"));
  EXPECT_FALSE(t.resurrect("0AR11480VVVVVV"));   // nanoseconds above 999999999
  EXPECT_EQ(t, Timeval(5, 5));
  // 999999999 ns rounds to a whole second.
  ASSERT_TRUE(t.resurrect("0AR11480TPLIFV"));
  EXPECT_EQ(t, Timeval(1, 0));
  ASSERT_TRUE(t.resurrect("0AR114800000V8"));  // 1000 ns
  EXPECT_EQ(t, Timeval(0, 1));
  // Before 1970 is "never".
  ASSERT_TRUE(t.resurrect(Timeval(-5, 0).serialize()));
  EXPECT_TRUE(t.isMax());
}

}  // namespace
