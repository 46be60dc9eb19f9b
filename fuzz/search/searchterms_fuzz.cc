// Any bytes as search terms: the first line is the search, every further
// line an event (as _raw, and as the fields x and mv) to filter. Building
// must either succeed or throw SearchParsingException; simplification,
// index terms and filtering must then never fail.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResults.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Exceptions.h"

namespace {

void setupOnce() {
  static bool done = false;
  if (done) return;
  done = true;
  // The shipped property files (segmenters, fields), read only.
  setenv("VELMOR_HOME", VELMOR_SOURCE_DIR, 0);
  LoaderInfo::getInstance().populateFromEnvironment();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setupOnce();
  Str text(reinterpret_cast<const char*>(data), size);
  size_t nl = text.find('\n');
  Str search = text.substr(0, nl);
  try {
    SearchEvaluator e(search);
    e.toString();
    if (!e.optimize()) return 0;
    e.toString();
    try {
      e.toIndexString();
    } catch (const SearchParsingException&) {
      // an empty time range
    }
    SearchResults rs;
    sr_index_t raw = rs.keyIndex("_raw", true), x = rs.keyIndex("x", true), mv = rs.keyIndex("mv", true);
    while (nl != Str::npos) {
      size_t next = text.find('\n', nl + 1);
      Str line = text.substr(nl + 1, next == Str::npos ? Str::npos : next - nl - 1);
      SearchResult* r = rs.addNewResult();
      r->setValue(raw, line);
      if (!line.empty() && line[0] != '#') r->setValue(x, line);
      r->setValue(mv, line);
      nl = next;
    }
    e.filter(rs, false);
  } catch (const SearchParsingException&) {
  }
  return 0;
}
