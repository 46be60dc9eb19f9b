// Fuzz target: arbitrary bytes as the records of an engine store's "values"
// log (behind a valid file head, with no index yet) -> open. Nothing may
// crash; every entry the store then lists must read back with its listed
// value, a reopen must list the same, and a new write must read back.
#include <stdlib.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "pipeline/indexer/STPersistentRecord.h"
#include "pipeline/indexer/STPersistentStorageImpl.h"

namespace {

std::vector<std::pair<Str, Str>> listAll(STPersistentStorageImpl& s) {
  std::vector<std::pair<Str, Str>> out;
  if (!s.enumerate(PSKey{}, out)) __builtin_trap();
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Pathname dir = [] {
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/persistentlog_fuzz.XXXXXX";
    char* d = mkdtemp(tmpl);
    assert(d);
    return Pathname(d);
  }();
  // Registered after dir is built, so it runs before dir is destroyed.
  static bool cleanup = std::atexit([] { dir.removeRecursive(); }) == 0;
  (void)cleanup;
  Pathname store = dir / "persistentstorage" / "f.st";
  store.removeRecursive();
  if (!store.mkdir_p()) return 0;
  FILE* f = std::fopen((store / "values").c_str(), "wb");
  if (!f) return 0;
  Str head = STPersistentRecord::fileHead();
  std::fwrite(head.data(), 1, head.size(), f);
  if (size > 0) std::fwrite(data, 1, size, f);  // an empty input may come as a null pointer
  std::fclose(f);

  std::vector<std::pair<Str, Str>> first;
  {
    STPersistentStorageImpl s(dir, "f");
    first = listAll(s);
    Str v;
    for (const auto& kv : first)
      if (!s.read(kv.first, v) || v != kv.second) __builtin_trap();
  }
  STPersistentStorageImpl s(dir, "f");
  if (listAll(s) != first) __builtin_trap();
  Str v;
  if (!s.write({"fuzz-new-key", "", "", ""}, "fresh") || !s.read("fuzz-new-key", v) || v != "fresh") __builtin_trap();
  return 0;
}
