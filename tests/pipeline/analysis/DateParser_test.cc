// DateParser: the guessing rules at their edges, the stream state (fallback
// to the last event's time, the date cache, the quick mode of hasTime), the
// modes, and broken pattern files as ordinary input.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

#include "pipeline/analysis/DateParser.h"

namespace {

const char* kXml = VELMOR_SOURCE_DIR "/etc/datetime.xml";

int64_t utc(int y, int mon, int d, int h, int mi, int s) {
  struct tm t = {};
  t.tm_year = y - 1900;
  t.tm_mon = mon - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_sec = s;
  return static_cast<int64_t>(timegm(&t));
}

struct Stream {
  DateParser p{true};
  Timeval ref;
  explicit Stream(int64_t reference, const char* zone = "UTC") : ref(reference, 0) {
    p.loadRegexes(kXml);
    p.setTZ(zone);
  }
  // -1 when no time.
  int64_t parse(const std::string& line) {
    Timeval out;
    ExtraTimevalParseInfo extra;
    return p.parseDate(out, StrSegment(line), ref, extra) ? out.sec() : -1;
  }
};

TEST(DateParser, GuessesWhatTheTextLeavesOut) {
  struct Case {
    const char* what;
    int64_t reference;
    const char* text;
    int64_t want;
  } cases[] = {
      {"time alone: today", utc(2026, 11, 24, 12, 0, 0), "12:30:05 job done", utc(2026, 11, 24, 12, 30, 5)},
      {"time alone, 3.5 h ahead: yesterday", utc(2026, 11, 24, 12, 0, 0), "15:30:05 job done",
       utc(2026, 11, 23, 15, 30, 5)},
      {"Dec 31 seen on Jan 1: last year", utc(2027, 1, 1, 10, 0, 0), "Dec 31 23:59:59 host x: y",
       utc(2026, 12, 31, 23, 59, 59)},
      {"Jan 1 seen on Dec 31: next year", utc(2026, 12, 31, 23, 0, 0), "Jan 1 00:00:10 host x: y",
       utc(2027, 1, 1, 0, 0, 10)},
      {"a date two days ahead stays this year", utc(2026, 6, 10, 12, 0, 0), "Jun 12 08:00:00 h x",
       utc(2026, 6, 12, 8, 0, 0)},
      {"a date three days ahead is last year", utc(2026, 6, 10, 12, 0, 0), "Jun 13 08:00:00 h x",
       utc(2025, 6, 13, 8, 0, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Stream s(c.reference);
    EXPECT_EQ(s.parse(c.text), c.want);
  }
}

TEST(DateParser, WideWindowReachesTheEdgesOfTheCalendar) {
  struct Case {
    const char* text;
    int64_t want;
  } cases[] = {
      {"69/01/02 10:00:00 INFO x", utc(1969, 1, 2, 10, 0, 0)},
      {"68/01/02 10:00:00 INFO x", utc(2068, 1, 2, 10, 0, 0)},
      {"1969-07-20 20:17:40 landed", utc(1969, 7, 20, 20, 17, 40)},
      // Even the open window spans only some 136 years each way; a date it
      // refuses makes no time at all rather than a guessed one.
      {"9999-12-31 23:59:59 end of days", -1},
      {"2100-01-01 00:00:00 within reach", utc(2100, 1, 1, 0, 0, 0)},
      {"2026-02-29 10:00:00 no such day", -1},
      {"2024-02-29 10:00:00 leap day", utc(2024, 2, 29, 10, 0, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Stream s(utc(2026, 11, 24, 12, 0, 0));
    s.p.setMinMaxDays(-1, -1);  // the aggregator's default: open
    EXPECT_EQ(s.parse(c.text), c.want);
  }
  // The default window (5 years back, 7 days ahead) refuses the same stamps.
  Stream narrow(utc(2026, 11, 24, 12, 0, 0));
  EXPECT_EQ(narrow.parse("1969-07-20 20:17:40 landed"), -1);
  EXPECT_EQ(narrow.parse("2026-12-05 10:00:00 too far ahead"), -1);
}

TEST(DateParser, ALineWithoutTimeTakesTheLastEventsTime) {
  Stream s(utc(2026, 11, 24, 12, 0, 0));
  EXPECT_EQ(s.parse("no time yet"), -1);
  EXPECT_EQ(s.parse("2026-11-24 10:00:00 first"), utc(2026, 11, 24, 10, 0, 0));
  EXPECT_EQ(s.parse("   at java.lang.Thread.run"), utc(2026, 11, 24, 10, 0, 0));

  // TIME_PREFIX: the stamp must stand after it; otherwise no time of its own.
  Stream pre(utc(2026, 11, 24, 12, 0, 0));
  pre.p.setTimePrefix("when=");
  EXPECT_EQ(pre.parse("x 2026-11-24 09:00:00 when=2026-11-24 10:00:00"), utc(2026, 11, 24, 10, 0, 0));
  EXPECT_EQ(pre.parse("2026-11-24 11:00:00 has no prefix"), utc(2026, 11, 24, 10, 0, 0));
  EXPECT_THROW(pre.p.setTimePrefix("(unclosed"), DateParseException);
}

TEST(DateParser, DayChangesAreSeenDespiteTheDateCache) {
  Stream s(utc(2026, 11, 26, 12, 0, 0));
  const char* lines[] = {"2026-11-24 23:59:58 a", "2026-11-24 23:59:59 b", "2026-11-25 00:00:01 c",
                         "2026-11-25 00:00:02 d"};
  const int64_t want[] = {utc(2026, 11, 24, 23, 59, 58), utc(2026, 11, 24, 23, 59, 59), utc(2026, 11, 25, 0, 0, 1),
                          utc(2026, 11, 25, 0, 0, 2)};
  for (int round = 0; round < 3; ++round)  // also once the stream has settled on its patterns
    for (int i = 0; i < 4; ++i) EXPECT_EQ(s.parse(lines[i]), want[i]) << lines[i];
}

TEST(DateParser, TimeOnlyLinesAfterADatedFileNameCrossMidnight) {
  Stream s(utc(2026, 11, 24, 12, 0, 0));
  s.p.setDateByString(StrSegment("/var/log/job-2026-11-20.log"));
  EXPECT_EQ(s.parse("22:00:00 start"), utc(2026, 11, 20, 22, 0, 0));
  EXPECT_EQ(s.parse("23:59:00 still"), utc(2026, 11, 20, 23, 59, 0));
  EXPECT_EQ(s.parse("00:01:00 next day"), utc(2026, 11, 21, 0, 1, 0));
}

TEST(DateParser, ZoneOfTheSourceShiftsLocalStampsOnly) {
  struct Case {
    const char* zone;
    const char* text;
    int64_t want;
  } cases[] = {
      {"America/New_York", "2026-11-24 10:00:00 x", utc(2026, 11, 24, 15, 0, 0)},
      {"America/New_York", "2026-07-24 10:00:00 x", utc(2026, 7, 24, 14, 0, 0)},
      {"America/New_York", "2026-11-24 10:00:00 +0100 x", utc(2026, 11, 24, 9, 0, 0)},
      {"Asia/Tokyo", "Nov 24 10:00:00 host x", utc(2026, 11, 24, 1, 0, 0)},
      {"UTC", "2026-11-24 10:00:00 PST x", utc(2026, 11, 24, 18, 0, 0)},
      {"Asia/Tokyo", "1700000000 epoch ignores zones", 1700000000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Stream s(utc(2026, 11, 24, 20, 0, 0), c.zone);
    EXPECT_EQ(s.parse(c.text), c.want);
  }
}

TEST(DateParser, ModesCurrentAndNone) {
  DateParser current(true);
  current.loadRegexes("CURRENT");
  Timeval out;
  ExtraTimevalParseInfo extra;
  const int64_t before = std::time(nullptr);
  ASSERT_TRUE(current.parseDate(out, StrSegment("2001-01-01 00:00:00"), Timeval(1, 0), extra));
  EXPECT_GE(out.sec(), before);
  EXPECT_EQ(extra.precision, -3);
  EXPECT_TRUE(current.hasTime(StrSegment("anything")));

  DateParser none(true);
  none.loadRegexes("NONE");
  EXPECT_FALSE(none.parseDate(out, StrSegment("2026-11-24 10:00:00"), Timeval(1, 0), extra));
  EXPECT_FALSE(none.hasTime(StrSegment("2026-11-24 10:00:00")));
}

TEST(DateParser, HasTimeBreaksOnDatedLinesAndDistrustsStrangeDates) {
  Stream s(utc(2026, 11, 24, 12, 0, 0));
  s.p.setMinMaxDays(-1, -1);
  EXPECT_TRUE(s.p.hasTime(StrSegment("2026-11-24 10:00:00 ERROR boom")));
  EXPECT_FALSE(s.p.hasTime(StrSegment("    at com.example.Main.run(Main.java:42)")));
  EXPECT_FALSE(s.p.hasTime(StrSegment("10:00:01 time without a date")));
  s.parse("2026-11-24 10:00:00 ERROR boom");
  // A far date written differently from the stream's own is no event start.
  EXPECT_FALSE(s.p.hasTime(StrSegment("  expires Jan 5 2031 10:00:00")));
  EXPECT_EQ(s.p.missCount(), 1);
  // The stream's own pattern keeps its say even for a far date.
  EXPECT_TRUE(s.p.hasTime(StrSegment("2026-11-25 10:00:00 next day")));
}

// After 11 hits in a row hasTime tries only the settled pattern: another
// form, or the same pattern matching a different length, is no break; the
// latter counts as a miss, and ten misses end the shortcut.
TEST(DateParser, QuickModeTrustsTheSettledPattern) {
  struct Case {
    const char* line;
    bool settled;  // asked after the stream settled
    bool want;
  } cases[] = {
      {"2026-11-24 10:00:05 x", false, true},
      {"2026-11-24 10:00:05 x", true, true},
      {"Nov 24 10:00:05 host x", false, true},
      {"Nov 24 10:00:05 host x", true, false},
      {"2026-11-24 10:00:05.123 x", false, true},
      {"2026-11-24 10:00:05.123 x", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.line << (c.settled ? " settled" : " fresh"));
    Stream s(utc(2026, 11, 24, 12, 0, 0));
    if (c.settled) {
      for (int i = 0; i < 12; ++i) ASSERT_TRUE(s.p.hasTime(StrSegment("2026-11-24 10:00:00 x")));
    }
    EXPECT_EQ(s.p.hasTime(StrSegment(c.line)), c.want);
  }
  Stream s(utc(2026, 11, 24, 12, 0, 0));
  for (int i = 0; i < 12; ++i) s.p.hasTime(StrSegment("2026-11-24 10:00:00 x"));
  for (int i = 0; i < 10; ++i) EXPECT_FALSE(s.p.hasTime(StrSegment("2026-11-24 10:00:05.123 x")));
  EXPECT_EQ(s.p.missCount(), 10);
  EXPECT_TRUE(s.p.hasTime(StrSegment("2026-11-24 10:00:05.123 x")));  // full search again
  EXPECT_EQ(s.p.lastTimePatternName(), "iso8601");
}

TEST(DateParser, LongAndBinaryLines) {
  std::string big(10 * 1024 * 1024, 'x');
  big += " 2026-11-24 10:00:00";
  Stream limited(utc(2026, 11, 24, 12, 0, 0));
  limited.p.setDateLookahead(150);
  EXPECT_EQ(limited.parse(big), -1);
  Stream unlimited(utc(2026, 11, 24, 12, 0, 0));
  EXPECT_EQ(unlimited.parse(big), utc(2026, 11, 24, 10, 0, 0));

  static const char kBinary[] = "\x00\xff\xfe\x01 2026-11-24 10:00:00 \x80\x00";
  std::string binary(kBinary, sizeof kBinary - 1);
  EXPECT_EQ(unlimited.parse(binary), utc(2026, 11, 24, 10, 0, 0));
  std::string noise;
  unsigned x = 7;
  for (int i = 0; i < 4096; ++i) noise += static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
  Stream fresh(utc(2026, 11, 24, 12, 0, 0));
  fresh.parse(noise);  // whatever it finds, it must not crash or throw
  fresh.p.hasTime(StrSegment(noise));
}

TEST(DateParser, TimeFormatComesBeforeThePatterns) {
  Stream s(utc(2026, 11, 24, 12, 0, 0));
  s.p.setTimeFormat("%d.%m.%Y %H:%M");
  EXPECT_EQ(s.parse("24.11.2026 09:15 x"), utc(2026, 11, 24, 9, 15, 0));
  EXPECT_EQ(s.parse("2026-11-24 09:20:00 falls back to the patterns"), utc(2026, 11, 24, 9, 20, 0));
}

// A broken datetime.xml is refused with a message naming the fault.
TEST(DateParser, BrokenPatternFilesAreRefused) {
  struct Case {
    const char* xml;
    const char* message;
  } cases[] = {
      {"<datetime><define", "Error parsing regex XML file: mem.xml - "},
      {"<datetime><define extract='hour'><text>x</text></define></datetime>",
       "couldn't find 'name' attribute for 'define' type of node in regex file"},
      {"<datetime><timePatterns><use name='nope'/></timePatterns></datetime>",
       "couldn't find 'use' reference named: nope"},
      {"<datetime><timePatterns><use/></timePatterns></datetime>",
       "couldn't find 'name' attribute for 'use' node in timePatterns or datePatterns"},
      {"<datetime><use/></datetime>", "couldn't find 'name' attribute for 'use' type of node in regex file"},
      {"<datetime><timePatterns><define name='a'/></timePatterns></datetime>",
       "invalid node name.  Must be 'use' or 'define'"},
      {"<datetime><pattern/></datetime>", "invalid node name.  Must be 'use' or 'define'"},
      {"<datetime><define name='a'/><datePatterns><use name='a'/></datePatterns></datetime>",
       "Can't find regular expression a specified in 'datePatterns' in file mem.xml"},
      {"<datetime><define name='a'><text>([[b]]</text></define><timePatterns><use name='a'/></timePatterns>"
       "</datetime>",
       "Can't find regular expression a specified in 'timePatterns' in file mem.xml: "
       "Regex - Cannot find regex reference: b"},
      {"<datetime><define name='a'><text>(x</text></define><timePatterns><use name='a'/></timePatterns></datetime>",
       "Can't find regular expression a specified in 'timePatterns' in file mem.xml: Regex: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    try {
      DatePatternSet::fromText(c.xml, "mem.xml");
      ADD_FAILURE() << "accepted";
    } catch (const DateParseException& e) {
      EXPECT_EQ(std::string(e.what()).substr(0, std::strlen(c.message)), c.message);
    }
  }
  DateParser p(true);
  try {
    p.loadRegexes("/nonexistent/datetime.xml");
    ADD_FAILURE() << "accepted";
  } catch (const DateParseException& e) {
    EXPECT_STREQ(e.what(), "Couldn't find '/nonexistent/datetime.xml' in config data for AggregatorProcessor.");
  }
}

TEST(DateParser, PatternSetsAreSharedPerPath) {
  auto a = DatePatternSet::get(kXml);
  auto b = DatePatternSet::get(kXml);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_FALSE(a->timePatterns().empty());
  EXPECT_FALSE(a->datePatterns().empty());
}

}  // namespace
