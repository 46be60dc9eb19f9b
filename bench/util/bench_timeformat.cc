// Time parsing and printing throughput (one item = one timestamp): rawParse
// alone for the common log shapes, the full text-to-instant path with a zone
// (UTC, a fixed offset, and a zoneinfo zone with DST), printing with
// appendFtime, and zone offset lookups across a span of years.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "util/ExtraTimevalParseInfo.h"
#include "util/StructTm.h"
#include "util/TimeFormat.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

class FixedGuesser : public TimeGuesser {
 public:
  explicit FixedGuesser(const Timezone& zone) : _zone(zone) {}
  int64_t current() override { return 1795539600; }
  const Timezone& baseTimezone() override { return _zone; }

 private:
  const Timezone& _zone;
};

void rawParse(benchmark::State& state, const char* format, const char* text) {
  const TimeFormat f(format);
  const char* end = text + strlen(text);
  TimeFormatRawParseResult out;
  for (auto _ : state) {
    bool ok = f.rawParse(text, end, out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(rawParse, iso_ms, "%F %T.%3N", "2026-11-24 17:05:09.047");
BENCHMARK_CAPTURE(rawParse, syslog, "%b %e %T", "Nov  4 07:05:09");
BENCHMARK_CAPTURE(rawParse, access_log, "%d/%b/%Y:%H:%M:%S %z", "24/Nov/2026:17:05:09 -0800");
BENCHMARK_CAPTURE(rawParse, epoch, "%s.%6N", "1795539909.123456");

void fullParse(benchmark::State& state, const char* zone, const char* format, const char* text) {
  const Timezone* tz = Timezone::find(zone);
  if (!tz) {
    state.SkipWithError("zone not installed");
    return;
  }
  FixedGuesser guesser(*tz);
  const TimeFormat f(format);
  const char* end = text + strlen(text);
  ExtraTimevalParseInfo extra;
  Timeval tv;
  for (auto _ : state) {
    bool ok = tv.parse(text, end, f, guesser, &extra);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(tv);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(fullParse, utc, "UTC", "%F %T.%3N", "2026-11-24 17:05:09.047");
BENCHMARK_CAPTURE(fullParse, offset, "UTC", "%F %T %z", "2026-11-24 17:05:09 +0530");
BENCHMARK_CAPTURE(fullParse, new_york, "America/New_York", "%F %T", "2026-07-01 06:00:00");
BENCHMARK_CAPTURE(fullParse, guessed_year, "America/New_York", "%b %e %T", "Nov  4 07:05:09");

void BM_AppendFtime(benchmark::State& state) {
  const LocalStructTmHires tm(1795539909, 47000, Timezone::gmt());
  Str out;
  for (auto _ : state) {
    out.clear();
    tm.appendFtime(out, "%Y-%m-%dT%H:%M:%S.%l%z");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendFtime);

void BM_OffsetAt(benchmark::State& state) {
  const Timezone* tz = Timezone::find("America/New_York");
  if (!tz) {
    state.SkipWithError("zone not installed");
    return;
  }
  std::vector<int64_t> instants;
  for (int64_t t = 0; t < 4102444800; t += 86400 * 37 + 3601) instants.push_back(t);   // 1970-2100
  int64_t sum = 0;
  for (auto _ : state) {
    for (int64_t t : instants) sum += tz->offsetAt(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(instants.size()));
}
BENCHMARK(BM_OffsetAt);

}  // namespace

BENCHMARK_MAIN();
