// Fuzz target for the result CSV dialect. Bytes are read as a CSV text into
// rows, written back and read again. Properties:
//  1. Nothing crashes, whatever the bytes.
//  2. What was read survives a write and a re-read unchanged (field names,
//     values, and absent versus empty), except that a trailing run of rows
//     with no value at all in a one-column set may be lost, because such a
//     row is written as an empty line and trailing blank text is dropped.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <vector>

#include "search/SearchResults.h"

namespace {
typedef std::map<Str, Str> Row;

std::vector<Row> rowsOf(const SearchResults& rs) {
  std::vector<Row> out;
  for (const SearchResult* r : rs) {
    Row row;
    for (const auto& kv : rs.getKeyMap())
      if (const Str* v = r->getValuePtr(kv.second)) row[kv.first] = *v;
    out.push_back(row);
  }
  return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Str input(reinterpret_cast<const char*>(data), size);
  SearchResults first;
  first.fromCSV(input);
  Str text;
  if (!first.toCSV(text)) return 0;
  SearchResults second;
  second.fromCSV(text);

  std::vector<Row> a = rowsOf(first);
  std::vector<Row> b = rowsOf(second);
  if (first.getKeyMap().size() == 1) {
    while (!a.empty() && a.back().empty()) a.pop_back();
    while (!b.empty() && b.back().empty()) b.pop_back();
  }
  if (a != b) abort();
  if (second.getBadLineCount() != 0) abort();
  return 0;
}
