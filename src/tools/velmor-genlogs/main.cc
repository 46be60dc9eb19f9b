// velmor-genlogs: writes realistic, reproducible sample logs for demos,
// tests and benchmarks. See GenOptions::usage() for the command line and
// StreamPlan for which files are written.
//
// Each file is generated on its own with a random sequence seeded from
// (seed, host, kind), so a file's bytes depend only on the options. Times
// come from the file's progress through its share of the output, mapped
// through the day/night profile of TimeWarp, so each file is in time order
// and stays inside the requested span.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "AccessCsv.h"
#include "AccessSource.h"
#include "AuthSource.h"
#include "GenOptions.h"
#include "JavaSource.h"
#include "JsonSource.h"
#include "KvSource.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "StreamPlan.h"
#include "SyslogSource.h"
#include "TimeWarp.h"

namespace {

struct Written {
  std::string path;
  uint64_t lines, bytes;
  std::string sourcetype;
  uint64_t events;  // lines, but a stack trace is one event with the line it follows
};

std::unique_ptr<EventSource> makeSource(const StreamDef& def, const SourceContext& ctx, AccessCsv* csv) {
  switch (def.format) {
    case LogFormat::Syslog:
      if (def.name == "auth.log") return std::make_unique<AuthSource>(ctx);
      return std::make_unique<SyslogSource>(ctx);
    case LogFormat::Access: return std::make_unique<AccessSource>(ctx, csv);
    case LogFormat::Kv: return std::make_unique<KvSource>(ctx);
    case LogFormat::Java: return std::make_unique<JavaSource>(ctx);
    case LogFormat::Json: return std::make_unique<JsonSource>(ctx);
  }
  return nullptr;
}

// Writes events until the file reaches `targetBytes` or holds `targetEvents`
// events (whichever is not zero).
void generate(EventSource& source, LineBuffer& out, Rng& rng, const TimeWarp& warp, uint64_t targetBytes,
              uint64_t targetEvents) {
  TimeWarp::Cursor cursor;
  const double almostOne = 1.0 - 1e-12;
  double last = 0;
  if (targetEvents) {
    for (uint64_t k = 0; k < targetEvents; ++k) {
      // (k + u) / n rises with k for any u in [0, 1).
      const double f = (static_cast<double>(k) + rng.uniform()) / static_cast<double>(targetEvents);
      source.emit(warp.millisAt(f < almostOne ? f : almostOne, cursor), out, rng);
    }
    return;
  }
  const double jitter = source.typicalBytes();
  while (out.bytes() < targetBytes) {
    double f = (static_cast<double>(out.bytes()) + rng.uniform() * jitter) / static_cast<double>(targetBytes);
    if (f < last) f = last;
    if (f > almostOne) f = almostOne;
    last = f;
    source.emit(warp.millisAt(f, cursor), out, rng);
  }
}

}  // namespace

int main(int argc, char** argv) {
  GenOptions opt;
  const std::string err = opt.parse(argc, argv);
  if (!err.empty()) {
    std::fprintf(stderr, "velmor-genlogs: %s\n%s", err.c_str(), GenOptions::usage());
    return 2;
  }
  if (opt.help) {
    std::fputs(GenOptions::usage(), stdout);
    return 0;
  }

  const std::vector<StreamDef> plan = StreamPlan::build(opt);
  const TimeWarp warp(opt.startDays * 86400, opt.days);
  const uint64_t salt = Rng::mix(opt.seed, 0x5EED);
  const auto started = std::chrono::steady_clock::now();

  AccessCsv csv;
  if (!opt.csvPath.empty()) {
    const std::filesystem::path parent = std::filesystem::path(opt.csvPath).parent_path();
    std::error_code ec;
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    if (!csv.open(opt.csvPath)) {
      std::fprintf(stderr, "velmor-genlogs: cannot write %s: %s\n", opt.csvPath.c_str(), std::strerror(errno));
      return 1;
    }
  }

  // Shares of the total: by weight, with integer remainders of an event
  // count going to the first streams so that the counts add up exactly.
  uint64_t weightSum = 0;
  for (const StreamDef& s : plan) weightSum += s.weight;
  std::vector<uint64_t> eventShare(plan.size(), 0);
  if (opt.lines) {
    uint64_t given = 0;
    for (size_t i = 0; i < plan.size(); ++i) {
      eventShare[i] = opt.lines / weightSum * plan[i].weight + opt.lines % weightSum * plan[i].weight / weightSum;
      given += eventShare[i];
    }
    for (size_t i = 0; given < opt.lines; i = (i + 1) % plan.size(), ++given) ++eventShare[i];
  }

  std::vector<Written> written;
  uint64_t totalBytes = 0, totalLines = 0;
  for (size_t i = 0; i < plan.size(); ++i) {
    const StreamDef& def = plan[i];
    const std::filesystem::path dir = std::filesystem::path(opt.outDir) / def.host;
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
      std::fprintf(stderr, "velmor-genlogs: cannot create %s: %s\n", dir.c_str(), ec.message().c_str());
      return 1;
    }
    const std::string path = (dir / def.name).string();
    LineBuffer out;
    if (!out.open(path)) {
      std::fprintf(stderr, "velmor-genlogs: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
      return 1;
    }
    const SourceContext ctx{def.host, def.hostIndex, salt, def.source, def.sourcetype};
    std::unique_ptr<EventSource> source = makeSource(def, ctx, opt.csvPath.empty() ? nullptr : &csv);
    Rng rng(Rng::mix(Rng::mix(opt.seed, def.hostIndex + 1), def.kind + 1));
    const uint64_t targetBytes =
        opt.lines ? 0 : static_cast<uint64_t>(static_cast<double>(opt.sizeBytes) * def.weight / weightSum);
    if (opt.lines == 0 || eventShare[i] > 0)
      generate(*source, out, rng, warp, targetBytes > 0 ? targetBytes : 1, eventShare[i]);
    const uint64_t bytes = out.bytes(), lines = out.lines();
    if (!out.close()) {
      std::fprintf(stderr, "velmor-genlogs: error writing %s: %s\n", path.c_str(), std::strerror(errno));
      return 1;
    }
    written.push_back(Written{path, lines, bytes, def.sourcetype, lines - out.continuations()});
    totalBytes += bytes;
    totalLines += lines;
  }
  if (!opt.csvPath.empty() && !csv.close()) {
    std::fprintf(stderr, "velmor-genlogs: error writing %s: %s\n", opt.csvPath.c_str(), std::strerror(errno));
    return 1;
  }

  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  for (const Written& w : written)
    std::printf("%s\t%llu\t%llu\t%s\t%llu\n", w.path.c_str(), static_cast<unsigned long long>(w.lines),
                static_cast<unsigned long long>(w.bytes), w.sourcetype.c_str(),
                static_cast<unsigned long long>(w.events));
  std::fprintf(stderr, "velmor-genlogs: %zu files, %llu lines, %llu bytes in %.2f s (%.1f MB/s)%s\n",
               written.size(), static_cast<unsigned long long>(totalLines),
               static_cast<unsigned long long>(totalBytes), secs,
               secs > 0 ? totalBytes / 1e6 / secs : 0.0, opt.csvPath.empty() ? "" : "; CSV written");
  return 0;
}
