// The guessing rules: short years, the year of a month and day, and the date
// of a bare time of day, all against a fixed clock in UTC.
#include "util/TimeGuesser.h"

#include <gtest/gtest.h>

#include "util/Timezone.h"

namespace {

using P = TimeFormatRawParseResult;

class FixedGuesser : public TimeGuesser {
 public:
  explicit FixedGuesser(int64_t now) : _now(now) {}
  int64_t current() override { return _now; }
  const Timezone& baseTimezone() override { return Timezone::gmt(); }

 private:
  int64_t _now;
};

TEST(TimeGuesser, ExpandShortYear) {
  const struct {
    int yy, year;
  } cases[] = {{0, 2000}, {26, 2026}, {68, 2068}, {69, 1969}, {99, 1999}, {-2001, -101}};
  for (const auto& c : cases) EXPECT_EQ(TimeGuesser::basic().expandShortYear(c.yy), c.year) << c.yy;
}

TEST(TimeGuesser, GuessYearAroundToday) {
  const struct {
    int64_t now;   // UTC
    int month, mday;
    int year;
  } cases[] = {
      {1795539600, 10, 24, 2026},   // 2026-11-24: today
      {1795539600, 10, 26, 2026},   // two days ahead: still this year
      {1795539600, 10, 27, 2025},   // three days ahead: last year
      {1795539600, 0, 15, 2026},
      {1798675200 + 3600, 0, 1, 2027},    // 2026-12-31 01:00 sees Jan 1: next year
      {1798675200 + 3600, 0, 3, 2027},
      {1798675200 + 3600, 0, 4, 2026},    // Jan 4 is no longer "early January"
      {1798675200 + 3600, 11, 30, 2026},
      {1798761600 + 3600, 11, 31, 2026},  // 2027-01-01 sees Dec 31: last year
      {1798761600 + 3600, 0, 2, 2027},
  };
  for (const auto& c : cases) {
    FixedGuesser g(c.now);
    P p;
    p.month = c.month;
    p.mday = c.mday;
    p.have = P::HAVE_MONTH | P::HAVE_MDAY;
    ASSERT_TRUE(g.guessYear(p));
    EXPECT_TRUE(p.have & P::HAVE_YEAR);
    EXPECT_EQ(p.year, c.year) << c.now << " " << c.month << "/" << c.mday;
  }
  P noDay;
  noDay.have = P::HAVE_MONTH;
  EXPECT_FALSE(TimeGuesser::basic().guessYear(noDay));
}

TEST(TimeGuesser, GuessDateOfTimeOfDay) {
  const int64_t now = 1795539600;   // 2026-11-24 17:00 UTC
  const struct {
    uint32_t have;
    int hour;
    bool pm;
    int mday, hour24;
  } cases[] = {
      {P::HAVE_HOUR24, 12, false, 24, 12},
      {P::HAVE_HOUR24, 20, false, 24, 20},   // 3 hours ahead: today
      {P::HAVE_HOUR24, 21, false, 23, 21},   // over 3 hours ahead: yesterday
      {P::HAVE_HOUR12 | P::HAVE_AMPM, 9, true, 23, 21},
      {P::HAVE_HOUR12 | P::HAVE_AMPM, 9, false, 24, 9},
      {P::HAVE_HOUR12, 5, false, 24, 17},    // "5:00" at 17:00 is this afternoon
      {P::HAVE_HOUR12, 6, false, 24, 18},    // an hour ahead is still fine
      {P::HAVE_HOUR12, 7, false, 24, 7},     // two hours ahead: this morning
      {P::HAVE_HOUR12, 0, false, 24, 12},    // "12:00"
  };
  for (const auto& c : cases) {
    FixedGuesser g(now);
    P p;
    p.have = c.have | P::HAVE_MINUTE;
    p.hour = c.hour;
    p.pm = c.pm;
    TimezoneGuessResult zone;
    zone.zone = &Timezone::gmt();
    ASSERT_TRUE(g.guessDate(p, zone));
    EXPECT_EQ(p.year, 2026);
    EXPECT_EQ(p.month, 10);
    EXPECT_EQ(p.mday, c.mday) << c.hour << " have " << c.have;
    EXPECT_EQ(p.hour, c.hour24) << c.hour << " have " << c.have;
    EXPECT_TRUE(p.have & P::HAVE_HOUR24);
  }
  // The zone decides what "today" is: 02:00 in Tokyo is 17:00 UTC.
  FixedGuesser g(now);
  P p;
  p.have = P::HAVE_HOUR24 | P::HAVE_MINUTE;
  p.hour = 1;
  TimezoneGuessResult tokyo;
  tokyo.offsetKnown = true;
  tokyo.offset = 9 * 3600;
  ASSERT_TRUE(g.guessDate(p, tokyo));
  EXPECT_EQ(p.mday, 25);
  // No minutes: no guess.
  P hourOnly;
  hourOnly.have = P::HAVE_HOUR24;
  EXPECT_FALSE(g.guessDate(hourOnly, tokyo));
}

TEST(TimeGuesser, Zones) {
  FixedGuesser g(0);
  TimezoneGuessResult r;
  EXPECT_TRUE(g.guessTimezone(nullptr, r));
  EXPECT_EQ(r.zone, &Timezone::gmt());
  EXPECT_TRUE(g.guessTimezone("PDT", r));
  ASSERT_NE(r.zone, nullptr);
  int64_t t = 0;
  EXPECT_TRUE(g.convertToGmt(r, t));
  EXPECT_EQ(t, 7 * 3600);
  EXPECT_FALSE(g.guessTimezone("Mumble", r));
}

}  // namespace
