// Result CSV read and write speed, against Miller and the sqlite3 shell.
//
// The benchmark writes a CSV file of 1,000,000 rows x 10 columns (mixed
// plain, quoted, empty and absent cells) into a scratch directory, then times:
//   BM_CsvRead       SearchResults::fromCSV(Pathname) of the file
//   BM_CsvWrite      SearchResults::toCSV(FileStar&) of the rows
//   BM_RoundTrip     read + write, the same work as the commands below
//   BM_Miller        mlr --icsv --ocsv cat <in> > <out>
//   BM_Sqlite        sqlite3 :memory: with the script
//                      .mode csv / .import <in> t / .headers on /
//                      .output <out> / select * from t;
// and prints the round-trip ratios at the end. The external programs are
// timed as whole commands (process start included). To reproduce:
//   ninja -C build bench_csv && build/bench/search/bench_csv
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "search/SearchResults.h"
#include "util/Pathname.h"

namespace {

const size_t kRows = 1000000;
const size_t kCols = 10;

struct Scratch {
  Pathname dir;
  Pathname input;
  uint64_t inputBytes = 0;
  Scratch() {
    char tmpl[] = "/tmp/velmor-bench-csv-XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    dir = Pathname(tmpl);
    input = dir / "in.csv";
    FILE* f = fopen(input.c_str(), "w");
    if (!f) abort();
    for (size_t c = 0; c < kCols; ++c) fprintf(f, "%sfield%zu", c ? "," : "", c);
    fputc('\n', f);
    for (size_t r = 0; r < kRows; ++r) {
      fprintf(f, "%zu,host%zu,\"GET /index.html?id=%zu HTTP/1.1\",%zu,,\"\",\"say \"\"hi\"\"\",word%zu,%zu.%zu,end\n",
              r, r % 97, r, r * 7 % 1000, r % 13, r % 1000, r % 10);
    }
    fclose(f);
    input.getSize(inputBytes);
  }
  ~Scratch() { dir.removeRecursive(); }
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

double gRoundTrip = 0, gMiller = 0, gSqlite = 0;

double runCommand(const std::string& cmd) {
  auto t0 = std::chrono::steady_clock::now();
  if (system(cmd.c_str()) != 0) return -1;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void setCounters(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRows));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * scratch().inputBytes));
}

void BM_CsvRead(benchmark::State& state) {
  Scratch& s = scratch();
  for (auto _ : state) {
    SearchResults rs;
    if (rs.fromCSV(s.input) != kRows) state.SkipWithError("short read");
  }
  setCounters(state);
}

void BM_CsvWrite(benchmark::State& state) {
  Scratch& s = scratch();
  SearchResults rs;
  rs.fromCSV(s.input);
  Pathname out = s.dir / "out.csv";
  for (auto _ : state) {
    FileStar f(fopen(out.c_str(), "w"));
    rs.toCSV(f);
    f.close();
  }
  setCounters(state);
}

void BM_RoundTrip(benchmark::State& state) {
  Scratch& s = scratch();
  Pathname out = s.dir / "out.csv";
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    SearchResults rs;
    rs.fromCSV(s.input);
    FileStar f(fopen(out.c_str(), "w"));
    rs.toCSV(f);
    f.close();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(secs);
    gRoundTrip = secs;
  }
  setCounters(state);
}

void BM_Miller(benchmark::State& state) {
  Scratch& s = scratch();
  std::string cmd = "mlr --icsv --ocsv cat " + s.input + " > " + (s.dir / "mlr.csv");
  for (auto _ : state) {
    double secs = runCommand(cmd);
    if (secs < 0) {
      state.SkipWithError("mlr failed");
      break;
    }
    state.SetIterationTime(secs);
    gMiller = secs;
  }
  setCounters(state);
}

void BM_Sqlite(benchmark::State& state) {
  Scratch& s = scratch();
  std::string cmd = "printf '.mode csv\\n.import " + s.input + " t\\n.headers on\\n.output " +
                    (s.dir / "sqlite.csv") + "\\nselect * from t;\\n' | sqlite3 :memory:";
  for (auto _ : state) {
    double secs = runCommand(cmd);
    if (secs < 0) {
      state.SkipWithError("sqlite3 failed");
      break;
    }
    state.SetIterationTime(secs);
    gSqlite = secs;
  }
  setCounters(state);
}

BENCHMARK(BM_CsvRead)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CsvWrite)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_RoundTrip)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();
BENCHMARK(BM_Miller)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Sqlite)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gRoundTrip > 0) {
    if (gMiller > 0) printf("round trip: Miller / velmor = %.2fx\n", gMiller / gRoundTrip);
    if (gSqlite > 0) printf("round trip: sqlite3 / velmor = %.2fx\n", gSqlite / gRoundTrip);
  }
  return 0;
}
