// Fuzz target: arbitrary bytes as an inner query text, compiled and run by
// executeQuery twice over, with control words and as a bare search, against
// a container whose one index "main" holds nothing. Nothing here catches:
// executeQuery must not throw, must hand back a query, and must leave a
// complete result document ("<queryResult>\n" ... "</queryResult>"). The
// same query id is asked twice per mode, so the cached path runs too.
// Inputs naming the "sleep" or "memhog" commands are skipped.
#include <stdlib.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "util/Logger.h"
#include "util/Pathname.h"

namespace {

class EmptyIndex : public IPartitionPolicy {
 public:
  bool write(const WritableEvent&) override { return false; }
  bool query(const std::vector<Str>&, const std::vector<Str>&, const std::vector<Str>&, int32_t, int32_t, size_t,
             std::vector<ValueWrapper>& out, size_t) override {
    out.clear();
    return true;
  }
  bool read(const ValueWrapper&, DataWrapper&) override { return false; }
};

class OneEmptyIndex : public DatabaseContainer {
 public:
  IPartitionPolicy* getPolicyByDomain(const Str& name) override { return name == "main" ? &_main : nullptr; }
  Str getDefaultDomain() override { return "main"; }
  void enumerateDomains(std::vector<Str>& out) override { out.push_back("main"); }

 private:
  EmptyIndex _main;
};

// The source tree, from this file's place in it.
// The checkout the target was built from (its language file is read).
Pathname sourceRoot() { return Pathname(VELMOR_SOURCE_DIR); }

bool completeDocument(const Pathname& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  const std::string doc = ss.str();
  static const std::string head = "<queryResult>\n", tail = "</queryResult>";
  return doc.compare(0, head.size(), head) == 0 && doc.size() >= head.size() + tail.size() &&
         doc.compare(doc.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Pathname dir = [] {
    char tmpl[] = "/tmp/querycompile_fuzz.XXXXXX";
    char* d = mkdtemp(tmpl);
    assert(d);
    return Pathname(d);
  }();
  static bool cleanup = std::atexit([] { dir.removeRecursive(); }) == 0;
  (void)cleanup;
  static OneEmptyIndex container;
  static bool ready = [] {
    Pathname cfg = dir / "log.cfg";
    if (FILE* f = std::fopen(cfg.c_str(), "w")) {
      std::fputs("rootCategory=EMERG\n", f);
      std::fclose(f);
    }
    Logger::initialize(cfg, dir, false);
    LoaderInfo::getInstance().setDbPath(dir);
    CompiledQueryLanguage::getInstance().compileLanguage(sourceRoot() / "etc/searchLanguage.xml");
    CompiledQueryLanguage::getInstance().setContainer(&container);
    return true;
  }();
  (void)ready;

  const Str text(reinterpret_cast<const char*>(data), size);
  // The administrative commands that sleep or allocate on request would
  // only stall the fuzzer.
  if (text.find("sleep") != Str::npos || text.find("memhog") != Str::npos) return 0;
  for (bool whole : {false, true}) {
    for (int round = 0; round < 2; ++round) {
      std::shared_ptr<Query> q = executeQuery(text, "fuzz", "fuzzq", "", whole);
      if (!q) __builtin_trap();
      if (!completeDocument(q->getOutputPath())) __builtin_trap();
      if (q->hasFailed() && q->getError().empty()) __builtin_trap();
    }
    QueryCacheManager::getInstance().clear();
  }
  return 0;
}
