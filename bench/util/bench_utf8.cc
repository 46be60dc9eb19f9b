// UTF8Converter throughput in bytes of input per second: Latin-1 (one-byte
// table) and UTF-16LE to UTF-8, on the text of the loghub samples widened or
// sprinkled with high bytes so that both ASCII and multi-byte output occur.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include "util/UTF8Converter.h"

namespace {

const std::string& logText() {
  static const std::string text = [] {
    std::string all;
    for (const char* sys : {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"}) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR "/../shared/data/loghub/") + sys + "/" + sys + "_2k.log",
                       std::ios::binary);
      all.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return all;
  }();
  return text;
}

void run(benchmark::State& state, const char* charset, const std::string& input) {
  if (input.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  UTF8Converter conv;
  conv.setCharset(charset);
  Str out;
  out.reserve(input.size() * 2);
  const size_t chunk = 64 * 1024;  // as a file reader would feed it
  for (auto _ : state) {
    out.clear();
    for (size_t off = 0; off < input.size(); off += chunk)
      conv.convert(input.data() + off, std::min(chunk, input.size() - off), out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(input.size()));
}

void BM_Latin1ToUtf8(benchmark::State& state) {
  std::string in = logText();
  for (size_t i = 0; i < in.size(); i += 37) in[i] = static_cast<char>(0xE9);  // some accented letters
  run(state, "iso-8859-1", in);
}

void BM_Utf16leToUtf8(benchmark::State& state) {
  std::string in;
  for (char c : logText()) {
    in.push_back(c);
    in.push_back('\0');
  }
  run(state, "utf-16le", in);
}

void BM_Utf8Validate(benchmark::State& state) { run(state, "utf-8", logText()); }

}  // namespace

BENCHMARK(BM_Latin1ToUtf8);
BENCHMARK(BM_Utf16leToUtf8);
BENCHMARK(BM_Utf8Validate);
BENCHMARK_MAIN();
