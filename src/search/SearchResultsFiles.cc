// Spill files of SearchResults: the walk over the chain of CSV files that
// hold rows too many for memory, and collapse(), which re-chunks them.
#include <cstdio>

#include "search/FILELineReader.h"
#include "search/SearchResults.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {
Logger gLog("SearchResults");
}

bool SearchResults::writeRowsTo(const Pathname& path) const {
  FileStar f(fopen(path.c_str(), "w"));
  if (!f.isValid()) return false;
  toCSV(f, true, false);
  bool ok = f.flush() && !f.error();
  return f.close() && ok;
}

void SearchResults::firstFile() {
  _fileCursor = 0;
  _currentDeleted = false;
  _atFirstFile = true;
}

bool SearchResults::readFile(bool headerOnly) {
  if (_files.empty()) return _atFirstFile;
  if (_fileCursor >= _files.size()) return false;
  // fromCSV forgets the file chain along with the dictionary: keep it.
  std::vector<Pathname> files;
  files.swap(_files);
  const size_t cursor = _fileCursor;
  const bool atFirst = _atFirstFile;
  const Pathname& path = files[cursor];
  bool ok = true;
  FileStar f(fopen(path.c_str(), "r"));
  if (!f.isValid()) {
    gLog.error("Could not open file for reading: %s", path.c_str());
    free(false);
    ok = false;
  } else {
    FILELineReader r(f, true);
    std::vector<sr_index_t> inds;
    _badLines = 0;
    if (!readHeader(r, inds, false, true)) {
      gLog.error("Error reading from file: %s", path.c_str());
      ok = false;
    } else if (!headerOnly) {
      while (readCSVLine(r, inds, false)) {
      }
    }
  }
  _files.swap(files);
  _fileCursor = cursor;
  _atFirstFile = atFirst;
  _currentDeleted = false;
  return ok;
}

bool SearchResults::writeFile() {
  if (_files.empty() || _fileCursor >= _files.size()) return true;
  if (empty()) {
    deleteFile();
    return true;
  }
  const Pathname& path = _files[_fileCursor];
  if (!writeRowsTo(path)) {
    gLog.error("Could not create file for writing: %s", path.c_str());
    return false;
  }
  return true;
}

bool SearchResults::nextFile() {
  _atFirstFile = false;
  if (_files.empty()) return false;
  if (_currentDeleted)
    _currentDeleted = false;  // the list closed up: the cursor is on the next file already
  else
    ++_fileCursor;
  return _fileCursor < _files.size();
}

void SearchResults::deleteFile() {
  if (_fileCursor >= _files.size()) return;
  _files[_fileCursor].unlink();
  _files.erase(_files.begin() + static_cast<long>(_fileCursor));
  _currentDeleted = true;
}

void SearchResults::clearFileList() {
  for (const Pathname& p : _files) p.unlink();
  _files.clear();
  _fileCursor = 0;
  _currentDeleted = false;
  _atFirstFile = true;
}

size_t SearchResults::collapse(const Pathname& dir, size_t chunksize, size_t offset, size_t maxRows,
                               bool allowInternal) {
  if (chunksize == 0) chunksize = getMaxResultRows(false);
  if (maxRows == 0) maxRows = static_cast<size_t>(-1);
  if (_files.empty()) {
    for (size_t k = 0; k < offset && !empty(); ++k) {
      delete front();
      pop_front();
    }
    while (size() > maxRows) {
      delete back();
      pop_back();
    }
    return size();
  }

  std::vector<Pathname> inputs(_files);
  free(false);
  _files.clear();

  // One dictionary for all files.
  for (const Pathname& p : inputs) {
    FileStar f(fopen(p.c_str(), "r"));
    std::vector<sr_index_t> inds;
    bool ok = f.isValid();
    if (ok) {
      FILELineReader r(f, true);
      ok = readHeader(r, inds, true, allowInternal);
    }
    if (!ok) {
      char msg[1000];
      snprintf(msg, sizeof msg, "Error reading file: %s", p.c_str());
      gLog.error("%s", msg);
      throw SearchResultsException(std::string(msg));
    }
  }

  const Pathname outDir = dir.empty() ? inputs.front().toParent() : dir;
  std::vector<Pathname> outputs;
  size_t passed = 0;
  size_t skipped = 0;
  bool full = false;
  for (const Pathname& p : inputs) {
    if (full) break;
    FileStar f(fopen(p.c_str(), "r"));
    if (!f.isValid()) continue;
    FILELineReader r(f, true);
    std::vector<sr_index_t> inds;
    if (!readHeader(r, inds, true, allowInternal)) continue;
    while (!full) {
      const size_t before = size();
      if (!readCSVLine(r, inds, false)) break;
      if (size() == before) continue;  // a bad line
      if (skipped < offset) {
        ++skipped;
        delete back();
        pop_back();
        continue;
      }
      ++passed;
      if (size() > chunksize) {
        SearchResult* last = back();
        pop_back();
        Pathname out(outDir + Str::fromFormat("/collapsed-file%lu.csv", static_cast<unsigned long>(outputs.size())));
        if (!writeRowsTo(out)) gLog.error("Could not write to file: %s", out.c_str());
        outputs.push_back(out);
        deleteRows();
        push_back(last);
      }
      if (passed >= maxRows) full = true;
    }
  }
  // The old chain is replaced; keep only files that were rewritten in place.
  for (const Pathname& p : inputs) {
    bool reused = false;
    for (const Pathname& o : outputs) reused = reused || o == p;
    if (!reused) p.unlink();
  }
  if (outputs.empty()) return passed;  // one chunk: stays in memory

  if (!empty()) {
    Pathname out(outDir + Str::fromFormat("/collapsed-file%lu.csv", static_cast<unsigned long>(outputs.size())));
    if (!writeRowsTo(out)) gLog.error("Could not write to file: %s", out.c_str());
    outputs.push_back(out);
  }
  _files = outputs;
  firstFile();
  readFile(false);
  return passed;
}
