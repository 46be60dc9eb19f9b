// Every line of the real log samples, parsed with the shipped datetime.xml,
// must give the time its structured CSV states. The samples live beside the
// project (../shared/data/loghub); the test skips when they are absent.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "pipeline/analysis/DateParser.h"

namespace {

const std::string kRoot = VELMOR_SOURCE_DIR "/../shared/data/loghub/";

std::vector<std::string> splitCsv(const std::string& line) {
  std::vector<std::string> out(1);
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        out.back() += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        out.back() += c;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == ',') {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

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

int monthOf(const std::string& name) {
  static const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; ++i)
    if (name.compare(0, 3, kMonths[i]) == 0) return i + 1;
  return 0;
}

// The expected time (UTC seconds, microseconds) of a CSV row; the header
// names the columns.
struct Expect {
  int64_t sec = 0;
  int32_t usec = 0;
};

using Row = std::vector<std::string>;

struct System {
  const char* name;
  int year;  // the year of the log (the reference time lies at its end)
  Expect (*expect)(const Row& r, int year);
};

int num(const std::string& s, size_t b, size_t n) { return std::stoi(s.substr(b, n)); }

Expect hms(const std::string& t, int y, int mon, int d) {
  return {utc(y, mon, d, num(t, 0, 2), num(t, 3, 2), num(t, 6, 2)), 0};
}

const System kSystems[] = {
    {"Apache", 2005,
     [](const Row& r, int) {  // Time "Sun Dec 04 04:47:44 2005"
       const std::string& t = r[1];
       return Expect{utc(num(t, 20, 4), monthOf(t.substr(4, 3)), num(t, 8, 2), num(t, 11, 2), num(t, 14, 2),
                         num(t, 17, 2)),
                     0};
     }},
    {"HDFS", 2008,
     [](const Row& r, int) {  // Date 081109, Time 203615
       return Expect{utc(2000 + num(r[1], 0, 2), num(r[1], 2, 2), num(r[1], 4, 2), num(r[2], 0, 2), num(r[2], 2, 2),
                         num(r[2], 4, 2)),
                     0};
     }},
    {"Linux", 2005, [](const Row& r, int y) { return hms(r[3], y, monthOf(r[1]), std::stoi(r[2])); }},
    {"OpenSSH", 2017, [](const Row& r, int y) { return hms(r[3], y, monthOf(r[1]), std::stoi(r[2])); }},
    {"Spark", 2017,
     [](const Row& r, int) {  // Date 17/06/09
       return hms(r[2], 2000 + num(r[1], 0, 2), num(r[1], 3, 2), num(r[1], 6, 2));
     }},
    {"Thunderbird", 2005, [](const Row& r, int) { return Expect{std::stoll(r[2]), 0}; }},
    {"Windows", 2016,
     [](const Row& r, int) { return hms(r[2], num(r[1], 0, 4), num(r[1], 5, 2), num(r[1], 8, 2)); }},
    {"Zookeeper", 2015,
     [](const Row& r, int) {  // Time "17:41:44,747"
       Expect e = hms(r[2], num(r[1], 0, 4), num(r[1], 5, 2), num(r[1], 8, 2));
       e.usec = num(r[2], 9, 3) * 1000;
       return e;
     }},
};

TEST(LoghubTimes, EveryLineGivesTheTimeOfItsCsvRow) {
  std::ifstream probe(kRoot + "README.md");
  if (!probe) GTEST_SKIP() << "no log samples at " << kRoot;

  for (const System& sys : kSystems) {
    SCOPED_TRACE(sys.name);
    const std::string base = kRoot + sys.name + "/" + sys.name + "_2k.log";
    std::ifstream log(base), csv(base + "_structured.csv");
    ASSERT_TRUE(log && csv);
    DateParser parser(true);
    parser.loadRegexes(VELMOR_SOURCE_DIR "/etc/datetime.xml");
    parser.setDateLookahead(150);
    parser.setTZ("UTC");
    const Timeval reference(utc(sys.year, 12, 31, 12, 0, 0), 0);

    std::string line, row;
    std::getline(csv, row);  // header
    int total = 0, right = 0;
    std::string firstWrong;
    while (std::getline(log, line) && std::getline(csv, row)) {
      ++total;
      const Expect want = sys.expect(splitCsv(row), sys.year);
      Timeval got;
      ExtraTimevalParseInfo extra;
      const bool ok = parser.parseDate(got, StrSegment(line), reference, extra);
      if (ok && got.sec() == want.sec && got.usec() == want.usec)
        ++right;
      else if (firstWrong.empty())
        firstWrong = line + " -> " + std::to_string(ok ? got.sec() : -1) + " want " + std::to_string(want.sec);
    }
    std::printf("%-12s %5.1f%% of %d lines\n", sys.name, 100.0 * right / total, total);
    EXPECT_EQ(total, 2000);
    EXPECT_EQ(right, total) << "first wrong: " << firstWrong;
  }
}

}  // namespace
