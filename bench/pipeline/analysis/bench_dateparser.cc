// Lines per second through DateParser::hasTime + parseDate with the shipped
// datetime.xml, one parser per stream as the aggregator uses it (lookahead
// 150): warm, a stream of one stamp form; cold, the forms changing from
// line to line, and a fresh parser for every line (no pattern remembered,
// the compiled patterns shared); and the cost of compiling datetime.xml.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "pipeline/analysis/DateParser.h"

namespace {

const char* kXml = VELMOR_SOURCE_DIR "/etc/datetime.xml";
const int64_t kReference = 1795521600;  // 2026-11-24 12:00:00 UTC

std::vector<std::string> makeLines(int form, size_t n) {
  std::vector<std::string> out;
  char buf[512];
  for (size_t i = 0; i < n; ++i) {
    const unsigned s = static_cast<unsigned>(i);
    switch (form) {
      case 0:
        std::snprintf(buf, sizeof buf,
                      "2026-11-24 10:%02u:%02u,%03u INFO [pool-%u] com.example.Service - handled request id=%u",
                      s / 60 % 60, s % 60, s % 1000, s % 8, s);
        break;
      case 1:
        std::snprintf(buf, sizeof buf, "Nov 24 10:%02u:%02u web-01 sshd[%u]: Accepted publickey for user%u from 10.0.%u.%u",
                      s / 60 % 60, s % 60, 1000 + s % 500, s % 20, s % 256, s % 200);
        break;
      case 2:
        std::snprintf(buf, sizeof buf,
                      "10.1.%u.%u - - [24/Nov/2026:10:%02u:%02u +0000] \"GET /products/%u HTTP/1.1\" 200 %u",
                      s % 256, s % 200, s / 60 % 60, s % 60, s, 500 + s % 9000);
        break;
      default:
        std::snprintf(buf, sizeof buf, "{\"time\":\"2026-11-24T10:%02u:%02u.%03uZ\",\"level\":\"info\",\"user\":\"u%u\"}",
                      s / 60 % 60, s % 60, s % 1000, s % 50);
        break;
    }
    out.emplace_back(buf);
    if (i % 5 == 4) out.emplace_back("    at com.example.Service.handle(Service.java:42)");
  }
  return out;
}

void BM_ParseStream(benchmark::State& state) {
  const std::vector<std::string> lines = makeLines(static_cast<int>(state.range(0)), 4096);
  DateParser p(true);
  p.loadRegexes(kXml);
  p.setTZ("UTC");
  p.setDateLookahead(150);
  const Timeval ref(kReference, 0);
  size_t i = 0, found = 0;
  for (auto _ : state) {
    const StrSegment line(lines[i]);
    if (++i == lines.size()) i = 0;
    if (p.hasTime(line)) ++found;
    Timeval out;
    ExtraTimevalParseInfo extra;
    benchmark::DoNotOptimize(p.parseDate(out, line, ref, extra));
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["breaks"] = static_cast<double>(found);
}
BENCHMARK(BM_ParseStream)->Arg(0)->Arg(1)->Arg(2)->Arg(3);

// Cold: arg 0, one parser and the four forms in turn; arg 1, a new parser
// for each line.
void BM_ParseCold(benchmark::State& state) {
  std::vector<std::string> lines;
  for (int form = 0; form < 4; ++form)
    for (std::string& l : makeLines(form, 1024))
      if (l[0] != ' ') lines.push_back(std::move(l));
  std::vector<std::string> mixed;
  for (size_t i = 0; i < 1024; ++i)
    for (size_t form = 0; form < 4; ++form) mixed.push_back(lines[form * 1024 + i]);
  const bool fresh = state.range(0) != 0;
  auto make = [] {
    auto p = std::make_unique<DateParser>(true);
    p->loadRegexes(kXml);
    p->setTZ("UTC");
    p->setDateLookahead(150);
    return p;
  };
  std::unique_ptr<DateParser> p = make();
  const Timeval ref(kReference, 0);
  size_t i = 0, found = 0;
  for (auto _ : state) {
    if (fresh) p = make();
    const StrSegment line(mixed[i]);
    if (++i == mixed.size()) i = 0;
    Timeval out;
    ExtraTimevalParseInfo extra;
    if (p->parseDate(out, line, ref, extra)) ++found;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["found"] = static_cast<double>(found) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ParseCold)->Arg(0)->Arg(1);

void BM_CompilePatternFile(benchmark::State& state) {
  std::string xml;
  if (std::FILE* f = std::fopen(kXml, "rb")) {
    char buf[8192];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) xml.append(buf, n);
    std::fclose(f);
  }
  for (auto _ : state) benchmark::DoNotOptimize(DatePatternSet::fromText(xml, "datetime.xml"));
}
BENCHMARK(BM_CompilePatternFile);

}  // namespace

BENCHMARK_MAIN();
