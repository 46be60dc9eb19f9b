// Fuzz target: "keyword\nvalue[\nformat]" -> TimeParser::parse, applied
// twice in a row so that the span keywords meet a bound already set. Nothing
// may crash and nothing but TimeParseException may escape; whatever is
// accepted leaves both bounds inside the index range, and a "last N units"
// keyword never leaves its minimum after its maximum.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "pipeline/indexer/TimeParser.h"
#include "util/Exceptions.h"

namespace {

void inRange(int64_t t) {
  if (t < TimeParser::kMinTime || t > TimeParser::kMaxTime) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A zone with daylight saving makes the calendar paths do real work.
  static bool zoned = [] {
    setenv("TZ", "America/New_York", 1);
    tzset();
    return true;
  }();
  (void)zoned;

  std::string in(reinterpret_cast<const char*>(data), size);
  size_t a = in.find('\n');
  Str keyword(in.substr(0, a));
  Str value, format;
  if (a != std::string::npos) {
    size_t b = in.find('\n', a + 1);
    value = in.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
    if (b != std::string::npos) format = in.substr(b + 1);
  }
  const time_t now = 1710513045;  // a Friday afternoon in March 2024

  TimeParser p;
  for (int round = 0; round < 2; ++round) {
    try {
      p.parse(keyword, value, format, now);
    } catch (const TimeParseException&) {
      break;
    }
    inRange(p.getMinTime());
    inRange(p.getMaxTime());
    if ((keyword == "daysago" || keyword == "hoursago" || keyword == "minutesago" || keyword == "monthsago") &&
        p.getMinTime() > p.getMaxTime())
      __builtin_trap();
  }
  int64_t t = 0;
  if (TimeParser::parseTime(value, format, now, t)) inRange(t);
  return 0;
}
