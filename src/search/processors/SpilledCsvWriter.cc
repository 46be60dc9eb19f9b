#include "search/processors/SpilledCsvWriter.h"

#include "search/SearchResults.h"

namespace {
// The rows of `chunk` under the columns `names` (internal names through the
// internal dictionary), one write per line; answers the bytes written.
size_t appendRows(SearchResults& chunk, const std::vector<Str>& names, FileStar& f, bool stripCR) {
  std::vector<sr_index_t> inds(names.size());
  for (size_t i = 0; i < names.size(); ++i)
    inds[i] = SearchResults::isInternalField(names[i]) ? chunk.internalKeyIndex(names[i], false)
                                                      : chunk.keyIndex(names[i], false);
  size_t bytes = 0;
  Str line;
  for (const SearchResult* r : chunk) {
    line.clear();
    for (size_t i = 0; i < inds.size(); ++i) {
      if (i) line += ',';
      if (const Str* v = r->getValuePtr(inds[i])) SearchResults::csvEscape(*v, line, stripCR);
    }
    line += '\n';
    if (!f.write(line)) break;
    bytes += line.size();
  }
  return bytes;
}
}  // namespace

bool SpilledCsvWriter::write(SearchResults& results, FileStar& f, bool withInternal, bool stripCR, size_t& bytes,
                             Str& error) {
  bytes = 0;
  if (!results.hasFiles()) {
    bytes = results.toCSV(f, withInternal, stripCR);
    if (f.error() || !f.flush()) {
      error.clear();
      return false;
    }
    return true;
  }
  // First pass: the union of the chunk headers.
  const std::vector<Pathname> files = results.getFiles();
  SearchResults keys, chunk;
  for (const Pathname& p : files) {
    chunk.free(false);
    chunk.addFile(p);
    chunk.firstFile();
    if (!chunk.readFile(true)) {
      error = p;
      return false;
    }
    keys.appendKeyMap(chunk);
  }
  std::vector<Str> names;
  std::vector<sr_index_t> inds;
  keys.genFieldList(names, inds, false, withInternal);
  if (names.empty()) return true;
  Str header;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i) header += ',';
    SearchResults::csvEscape(names[i], header, stripCR);
  }
  header += '\n';
  bool ok = f.write(header);
  bytes += header.size();
  for (size_t i = 0; ok && i < files.size(); ++i) {
    chunk.free(false);
    chunk.addFile(files[i]);
    chunk.firstFile();
    if (!chunk.readFile()) {
      error = files[i];
      return false;
    }
    bytes += appendRows(chunk, names, f, stripCR);
    ok = !f.error();
  }
  chunk.free(false);
  ok = ok && f.flush();
  if (!ok) error.clear();
  return ok;
}

size_t SpilledCsvWriter::countRows(SearchResults& results) {
  if (!results.hasFiles()) return results.size();
  size_t n = 0;
  SearchResults chunk;
  for (const Pathname& p : results.getFiles()) {
    chunk.free(false);
    chunk.addFile(p);
    chunk.firstFile();
    if (chunk.readFile()) n += chunk.size();
  }
  chunk.free(false);
  return n;
}
