// `sort -num(field)` of 1M rows: in memory, and spilled (presort of each
// chunk, then the merge), against the same sort done by Miller and by the
// sqlite3 shell over the same CSV file, timed in the same run. The ratios
// (external time / ours) are printed at the end.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SortProcessor.h"
#include "util/FileStar.h"
#include "util/Pathname.h"

namespace {

const size_t kRows = 1000000;
const size_t kChunk = 50000;
std::string gDir;
double gSecs[4];  // in memory, spilled, miller, sqlite3

void makeRows(SearchResults& rs) {
  sr_index_t f = rs.keyIndex("field", true), n = rs.keyIndex("name", true);
  unsigned long x = 12345;
  for (size_t i = 0; i < kRows; ++i) {
    x = x * 6364136223846793005UL + 1442695040888963407UL;
    SearchResult* r = rs.addNewResult();
    r->setValue(f, std::to_string((x >> 33) % 1000000));
    r->setValue(n, "row" + std::to_string(i));
  }
}

SortProcessor* sorter(const char* name) {
  auto* p = new SortProcessor(name);
  p->parseSpec({"-num(field)"}, {false});
  return p;
}

// Writes the rows as chunk files of kChunk rows (and the whole as one CSV).
void writeChunks(SearchResults& all, SearchResults& spilled) {
  SearchResults part;
  size_t k = 0;
  for (SearchResult* r : all) {
    part.copyResult(*r, *part.addNewResult());
    ++k;
    if (part.size() == kChunk || k == all.size()) {
      Pathname p(gDir + "/chunk" + std::to_string(spilled.getFiles().size()) + ".csv");
      FileStar f(fopen(p.c_str(), "w"));
      part.toCSV(f, false, false);
      f.close();
      spilled.addFile(p);
      part.free(false);
    }
  }
}

double secondsOf(const std::string& cmd) {
  auto t0 = std::chrono::steady_clock::now();
  if (system(cmd.c_str()) != 0) return -1;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void BM_SortInMemory(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    SearchResults rs;
    makeRows(rs);
    SearchResultsInfo info;
    std::unique_ptr<SortProcessor> p(sorter("sort"));
    state.ResumeTiming();
    auto t0 = std::chrono::steady_clock::now();
    p->execute(rs, info);
    gSecs[0] = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
}

void BM_SortSpilled(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    SearchResults all, rs;
    makeRows(all);
    writeChunks(all, rs);
    all.free(false);
    SearchResultsInfo info;
    std::unique_ptr<SortProcessor> pre(sorter("presort")), p(sorter("sort"));
    state.ResumeTiming();
    auto t0 = std::chrono::steady_clock::now();
    pre->execute_dispatch(rs, info);  // per chunk, as the streaming side does
    p->execute_dispatch(rs, info);
    gSecs[1] = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    rs.clearFileList();
  }
}

void BM_Miller(benchmark::State& state) {
  for (auto _ : state)
    gSecs[2] = secondsOf("mlr --icsv --ocsv sort -nr field " + gDir + "/all.csv > /dev/null");
}

void BM_Sqlite3(benchmark::State& state) {
  for (auto _ : state)
    gSecs[3] = secondsOf("sqlite3 :memory: -cmd '.mode csv' -cmd '.import " + gDir +
                         "/all.csv t' 'select * from t order by cast(field as integer) desc' > /dev/null");
}

BENCHMARK(BM_SortInMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SortSpilled)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Miller)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sqlite3)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/bench_sortXXXXXX";
  gDir = mkdtemp(tmpl);
  {
    SearchResults rs;
    makeRows(rs);
    FileStar f(fopen((gDir + "/all.csv").c_str(), "w"));
    rs.toCSV(f, false, false);
    f.close();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printf("sort of %zu rows, seconds: in memory %.3f, spilled %.3f, miller %.3f, sqlite3 %.3f\n", kRows,
         gSecs[0], gSecs[1], gSecs[2], gSecs[3]);
  if (gSecs[0] > 0 && gSecs[1] > 0)
    printf("ratios: miller/in-memory %.2f, sqlite3/in-memory %.2f, miller/spilled %.2f, sqlite3/spilled %.2f\n",
           gSecs[2] / gSecs[0], gSecs[3] / gSecs[0], gSecs[2] / gSecs[1], gSecs[3] / gSecs[1]);
  return system(("rm -rf '" + gDir + "'").c_str()) == 0 ? 0 : 1;
}
