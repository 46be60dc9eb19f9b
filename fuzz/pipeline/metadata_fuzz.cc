// Fuzz target: arbitrary bytes as a table file ("Hosts.data") -> open. Nothing
// may crash; whatever rows were accepted must survive a save and a reopen
// in number, counts and times, and a word added afterwards must get its old code or the next one.
#include <stdlib.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "pipeline/indexer/MetaData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Pathname dir = [] {
    char tmpl[] = "/tmp/metadata_fuzz.XXXXXX";
    char* d = mkdtemp(tmpl);
    assert(d);
    return Pathname(d);
  }();
  // Registered after dir is built, so it runs before dir is destroyed.
  static bool cleanup = std::atexit([] { dir.removeRecursive(); }) == 0;
  (void)cleanup;
  Pathname file = dir / "Hosts.data";
  FILE* f = std::fopen(file.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  MetaData md(dir, "Hosts.data", "Hosts");
  size_t rows = md.open();
  std::vector<WordPositionData> before = md.getMetaData(0, 0);
  md.clear();
  for (const auto& r : before) md.addWordPositionData(r);
  md.sync();

  MetaData back(dir, "Hosts.data", "Hosts");
  size_t again = back.open();
  if (again != rows) __builtin_trap();
  std::vector<WordPositionData> after = back.getMetaData(0, 0);
  for (size_t i = 0; i < rows; ++i)
    if (after[i].count != before[i].count || after[i].lastTime != before[i].lastTime) __builtin_trap();
  const char* fresh = "fuzz-new-host-\x01";
  long known = back.getCodeForWord(fresh);
  long code = back.addWord(fresh, 1);
  if (known >= 0 ? code != known : code != long(rows)) __builtin_trap();
  file.unlink();
  return 0;
}
