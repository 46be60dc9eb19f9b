// Fuzz target: arbitrary bytes as the first file of a raw data journal.
// Every address up to the end of the data is read, plainly and (when the
// input is long enough) through a second, gzipped copy; nothing may crash
// or throw.
#include <unistd.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "framework/ReadContext.h"
#include "framework/SplitCompression.h"

namespace {

// A scratch directory for the whole run, removed at exit. Held by a pointer
// that is never freed, so the exit handler never sees it destroyed.
const std::string& scratch() {
  static const std::string* dir = [] {
    char tmpl[] = "/tmp/rawdata_fuzz.XXXXXX";
    const std::string* d = new std::string(::mkdtemp(tmpl));
    std::atexit([] { Pathname(Str(scratch())).removeRecursive(); });
    return d;
  }();
  return *dir;
}

void readEverything(SplitCompression& sc, size_t size) {
  std::unique_ptr<ReadContext> ctx;
  Str raw, meta;
  int32_t time;
  const int64_t last = int64_t(size >> sc.addressShift()) + 1;
  for (int64_t a = 0; a <= last; ++a) sc.read(a, raw, meta, time, &ctx);
  for (int64_t a = last; a >= 0; a -= 3) sc.read(a, raw, meta, time, &ctx);
  if (ctx) {
    Str all;
    ctx->readAll(all);
    ctx->rawSize();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Pathname plain(Str(scratch() + "/plain"));
  const Pathname packed(Str(scratch() + "/gz"));
  plain.removeRecursive();
  packed.removeRecursive();
  plain.mkdir();
  packed.mkdir();
  // Inputs in whole 32-byte units are read as a shifted journal, others as
  // an old one addressed by byte offsets.
  const bool shifted = size % 32 == 0;
  for (const Pathname& p : {plain, packed})
    if (shifted) Pathname(p + "/.compressedAddresses").mkdir();

  if (FILE* f = std::fopen((plain + "/0").c_str(), "wb")) {
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  if (gzFile g = gzopen((packed + "/0.gz").c_str(), "wb")) {
    if (size > 0) gzwrite(g, data, unsigned(size));
    gzclose(g);
  }
  SplitCompression a(plain, SplitCompression::kDefaultRollSize, 5, false);
  readEverything(a, size);
  SplitCompression b(packed, SplitCompression::kDefaultRollSize, 5, false);
  readEverything(b, size);
  return 0;
}
