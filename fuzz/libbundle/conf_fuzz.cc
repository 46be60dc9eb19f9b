// Fuzz target: arbitrary bytes as a .conf file. Parses them, looks stanzas up
// (file patterns in force), edits and replaces stanzas, saves to a scratch
// file and reads it back. Beyond not crashing, a saved file read back and
// saved again must come out byte for byte the same (for inputs without NUL
// bytes, which the line reader cannot carry).
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "libbundle/PropertiesMapConfig.h"
#include "libbundle/SettingsMap.h"

namespace {

std::string gDir;

void removeDir() {
  if (gDir.empty()) return;
  std::string cmd = "rm -rf '" + gDir + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
}

const std::string& scratchDir() {
  if (gDir.empty()) {
    char tmpl[] = "/tmp/velmor-conf-fuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    gDir = tmpl;
    atexit(removeDir);
  }
  return gDir;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);

  // 1. The parser alone, from memory.
  {
    SettingsMap settings;
    FILE* f = size > 0 ? fmemopen(text.data(), size, "r") : fopen("/dev/null", "r");
    if (f == nullptr) return 0;
    PropertiesMapConfig::loadSettings(settings, f);
    fclose(f);
  }

  // 2. The file object: lookups, edits, save, read back.
  std::string path = scratchDir() + "/b/fuzz.conf";
  if (system(("mkdir -p '" + scratchDir() + "/b'").c_str()) != 0) abort();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
  }
  auto cfg = PropertiesMapConfig::fromFile(Pathname(path), true);
  std::set<Str> names;
  cfg->keys(names);
  Str value(text.substr(0, 64));
  for (char& c : value) {
    if (c == '\0') c = ' ';
  }
  PropertiesMap change;
  change.put("fuzzkey", value);
  change.put("#odd", "x");
  for (const Str& name : names) {
    cfg->get(name, true);
    cfg->get(name + "/tail.log", true);
  }
  if (!names.empty()) cfg->edit(*names.rbegin(), change);
  cfg->put("fuzz_new", change);
  if (!cfg->save()) abort();

  std::string first = readAll(path);
  auto again = PropertiesMapConfig::fromFile(Pathname(path), true);
  if (!again->save()) abort();
  std::string second = readAll(path);
  if (memchr(data, '\0', size) == nullptr && first != second) {
    fprintf(stderr, "saved file changed on a second save\n--- first\n%s\n--- second\n%s\n", first.c_str(),
            second.c_str());
    abort();
  }
  return 0;
}
