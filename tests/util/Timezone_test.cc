// Zone rules: POSIX TZ texts, zoneinfo files from the system, corrupt zoneinfo
// data, name lookup and the reading of local wall-clock times.
#include "util/Timezone.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace {

struct OffsetCase {
  const char* zone;
  int64_t utc;
  int32_t offset;
  bool dst;
};

// One second before and at each switch of 2026.
const OffsetCase kPosixCases[] = {
    {"EST5EDT,M3.2.0,M11.1.0", 1772953200 - 1, -18000, false},
    {"EST5EDT,M3.2.0,M11.1.0", 1772953200, -14400, true},
    {"EST5EDT,M3.2.0,M11.1.0", 1793512800 - 1, -14400, true},
    {"EST5EDT,M3.2.0,M11.1.0", 1793512800, -18000, false},
    {"EST5EDT", 1772953200, -14400, true},   // no rules: the North American ones
    {"CET-1CEST,M3.5.0,M10.5.0/3", 1774746000 - 1, 3600, false},
    {"CET-1CEST,M3.5.0,M10.5.0/3", 1774746000, 7200, true},
    {"CET-1CEST,M3.5.0,M10.5.0/3", 1792890000 - 1, 7200, true},
    {"CET-1CEST,M3.5.0,M10.5.0/3", 1792890000, 3600, false},
    // Southern hemisphere: DST spans the new year.
    {"AEST-10AEDT,M10.1.0,M4.1.0/3", 1775318400 - 1, 39600, true},
    {"AEST-10AEDT,M10.1.0,M4.1.0/3", 1775318400, 36000, false},
    {"AEST-10AEDT,M10.1.0,M4.1.0/3", 1791043200, 39600, true},
    {"<+0530>-5:30", 0, 19800, false},
    {"JST-9", 1795539600, 32400, false},
    // Julian days: J60 is March 1 also in leap years; 59 is day 59 counted from 0.
    {"XST3XDT,J60/0,J300/0", 1772334000 - 1, -10800, false},   // 2026-03-01 02:59:59 UTC
    {"XST3XDT,J60/0,J300/0", 1772334000, -7200, true},         // 2026-03-01 03:00 UTC
};

TEST(Timezone, PosixRules) {
  for (const auto& c : kPosixCases) {
    std::unique_ptr<Timezone> tz(Timezone::fromPosixTZ(c.zone));
    ASSERT_NE(tz, nullptr) << c.zone;
    bool dst = !c.dst;
    EXPECT_EQ(tz->offsetAt(c.utc, &dst), c.offset) << c.zone << " at " << c.utc;
    EXPECT_EQ(dst, c.dst) << c.zone << " at " << c.utc;
  }
}

TEST(Timezone, BadPosixTextRejected) {
  for (const char* text : {"", "E5", "EST", "EST5EDT,M13.1.0,M11.1.0", "EST5EDT,M3.2.0", "EST5EDT,M3.6.0,M11.1.0",
                           "EST99", "EST5EDT,M3.2.0,M11.1.0junk", "<EST5", "EST5EDT,J0,J100"}) {
    std::unique_ptr<Timezone> tz(Timezone::fromPosixTZ(text));
    EXPECT_EQ(tz, nullptr) << text;
  }
}

const OffsetCase kZoneinfoCases[] = {
    {"America/New_York", 1772953200 - 1, -18000, false},
    {"America/New_York", 1772953200, -14400, true},
    {"America/New_York", 1793512800 - 1, -14400, true},
    {"America/New_York", 1793512800, -18000, false},
    {"America/New_York", 2224713600, -14400, true},    // 2040-07-01, past the table
    {"America/New_York", 2208988800, -18000, false},   // 2040-01-01
    {"America/New_York", -2203891200, -18000, false},  // 1900
    {"Australia/Lord_Howe", 1775314800 - 1, 39600, true},
    {"Australia/Lord_Howe", 1775314800, 37800, false},   // half-hour DST ends
    {"Australia/Lord_Howe", 1791041400 - 1, 37800, false},
    {"Australia/Lord_Howe", 1791041400, 39600, true},
    {"Asia/Kolkata", 1795539600, 19800, false},
};

TEST(Timezone, ZoneinfoFiles) {
  for (const auto& c : kZoneinfoCases) {
    const Timezone* tz = Timezone::find(c.zone);
    ASSERT_NE(tz, nullptr) << c.zone;
    bool dst = !c.dst;
    EXPECT_EQ(tz->offsetAt(c.utc, &dst), c.offset) << c.zone << " at " << c.utc;
    EXPECT_EQ(dst, c.dst) << c.zone << " at " << c.utc;
  }
}

std::string readFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(Timezone, CorruptZoneinfoRejected) {
  const std::string good = readFile("/usr/share/zoneinfo/America/New_York");
  ASSERT_GT(good.size(), 200u);
  std::unique_ptr<Timezone> ok(Timezone::fromAncientZoneinfoData(good.data(), good.size()));
  ASSERT_NE(ok, nullptr);

  // Every cut inside the data blocks is refused (the footer alone may be cut short).
  const size_t footer = good.rfind('\n', good.size() - 2);
  for (size_t len : {size_t{0}, size_t{4}, size_t{43}, size_t{44}, size_t{100}, good.size() / 2, footer - 1}) {
    std::unique_ptr<Timezone> tz(Timezone::fromAncientZoneinfoData(good.data(), len));
    EXPECT_EQ(tz, nullptr) << "cut at " << len;
  }
  std::string badMagic = good;
  badMagic[0] = 'X';
  std::string garbage(good.size(), '\x7f');
  // Two transitions of the 64-bit block swapped.
  auto count = [&](size_t i) {
    const auto* u = reinterpret_cast<const unsigned char*>(good.data()) + 20 + 4 * i;
    return size_t{u[0]} << 24 | size_t{u[1]} << 16 | size_t{u[2]} << 8 | u[3];
  };
  const size_t v1Size = count(3) * 5 + count(4) * 6 + count(5) + count(2) * 8 + count(1) + count(0);
  const size_t v2Times = 44 + v1Size + 44;
  std::string unordered = good;
  std::swap_ranges(unordered.begin() + v2Times, unordered.begin() + v2Times + 8, unordered.begin() + v2Times + 8);
  std::string badFooter = good;
  badFooter[footer + 1] = '9';
  for (const std::string* data : {&badMagic, &garbage, &unordered, &badFooter}) {
    std::unique_ptr<Timezone> tz(Timezone::fromAncientZoneinfoData(data->data(), data->size()));
    EXPECT_EQ(tz, nullptr);
  }
}

TEST(Timezone, FindByName) {
  const struct {
    const char* name;
    bool found;
    int32_t offset;   // at 2026-11-24
  } cases[] = {
      {"UTC", true, 0},           {"gmt", true, 0},          {"IST", true, 19800},
      {"pst", true, -28800},      {"CEST", true, 7200},      {"NZDT", true, 46800},
      {"Europe/Berlin", true, 3600}, {":America/New_York", true, -18000},
      {"EST5EDT,M3.2.0,M11.1.0", true, -18000},
      {"Nowhere/Land", false, 0}, {"../../etc/passwd", false, 0}, {"", false, 0},
      {"/etc/passwd", false, 0},
  };
  for (const auto& c : cases) {
    const Timezone* tz = Timezone::find(c.name);
    EXPECT_EQ(tz != nullptr, c.found) << c.name;
    if (tz) {
      EXPECT_EQ(tz->offsetAt(1795539600), c.offset) << c.name;
    }
  }
  EXPECT_EQ(Timezone::find("Europe/Berlin"), Timezone::find("Europe/Berlin"));
}

TEST(Timezone, ConvertWallClockToGmt) {
  const Timezone* ny = Timezone::find("America/New_York");
  ASSERT_NE(ny, nullptr);
  std::unique_ptr<Timezone> posix(Timezone::fromPosixTZ("EST5EDT,M3.2.0,M11.1.0"));
  const struct {
    int64_t wall;
    int64_t utc;
  } cases[] = {
      {1795539600, 1795539600 + 18000},            // plain winter time
      {1772953200 - 18000 + 1800, 1772955000},     // 02:30 on the spring gap: standard offset
      {1793512800 - 18000 + 1800, 1793511000},     // 01:30 read twice in the fall: the earlier
      {-14182940, -14182940 + 14400},              // summer 1969
  };
  for (const Timezone* tz : {ny, static_cast<const Timezone*>(posix.get())}) {
    for (const auto& c : cases) {
      int64_t t = c.wall;
      ASSERT_TRUE(tz->convertToGmt(t));
      EXPECT_EQ(t, c.utc) << tz->name() << " wall " << c.wall;
    }
  }
}

TEST(Timezone, DefaultZoneFromEnvironment) {
  // Nothing else in this program asks for the default zone, which is computed once.
  setenv("TZ", ":Asia/Kolkata", 1);
  EXPECT_EQ(Timezone::getDefaultTimezone().offsetAt(0), 19800);
  EXPECT_EQ(&Timezone::getDefaultTimezone(), Timezone::find("Asia/Kolkata"));
}

}  // namespace
