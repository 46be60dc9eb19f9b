#include "search/processors/InputCSV.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "search/FILELineReader.h"
#include "search/SLLimits.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/OutputCSV.h"
#include "util/Logger.h"
#include "util/PortableRand.h"
#include "util/ScopedFileDescriptor.h"

namespace {
Logger gLogger("inputcsv");

// realpath(3) as a Str; empty when the path cannot be resolved.
Str realPath(const Pathname& p) {
  char buf[PATH_MAX];
  if (!::realpath(p.c_str(), buf)) return Str();
  return Str(buf);
}
}  // namespace

InputCSV::InputCSV(const Str& n, bool internal) : SearchProcessor(n), _internal(internal) {}

SearchProcessor* InputCSV::create(const Str& name) { return new InputCSV(name, name == "internalinputcsv"); }

void InputCSV::processArguments() {
  getOption("keeptempdir", _keepTempDir);
  getOption("usefilecolumnorder", _useFileColumnOrder);
  getOption("chunk", _chunk);
  if (getOption("start", _start) && _start >= kAllRows)
    throw searchError(this, gLogger, "Invalid 'start' option value, must be < %ul",
                      static_cast<unsigned>(kAllRows));
  if (getOption("max", _max) && (_max < 1 || _max > kAllRows))
    throw searchError(this, gLogger, "Invalid 'max' option value out of range, must be between 1 and %ul",
                      static_cast<unsigned>(kAllRows));
  // Any other option is unknown here.
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (a && a->isOption()) throw searchError(this, gLogger, "Invalid option argument: %s", a->toString(0).c_str());
  }
  if (getNextNonOpt(_fileName, true) >= args.size())
    throw searchError(this, gLogger, "usage: %s [chunk=<bool>] <filename>", name.c_str());
  refuseLeftovers();
  if (_fileName.empty()) throw searchError(this, gLogger, "At least one input file required.");
  bool bad = _fileName == "." || _fileName == "..";
  for (char c : _fileName) bad = bad || static_cast<unsigned char>(c) < 0x20;
  if (bad) throw searchError(this, gLogger, "'%s' is not a valid filename.", _fileName.c_str());
}

Pathname InputCSV::resolve() const {
  Pathname dir = OutputCSV::secureDir();
  Pathname path = _fileName.startswith('/') ? Pathname(_fileName) : dir / _fileName;
  if (!path.exists() && !_fileName.endswith(".csv")) {
    Pathname withExt(path + ".csv");
    if (withExt.exists()) path = withExt;
  }
  Str realDir = realPath(dir);
  Str real = realPath(path);
  if (real.empty()) {
    // A missing file: judge the text of the path, then say it cannot be read.
    Pathname text(path);
    text.removeDoubleSeps().removeDotDotSlash();
    if (!text.startswith(dir + "/"))
      throw searchError(this, gLogger, "Reading a file (%s) outside of the secure directory is not allowed.",
                        path.c_str());
    throw searchError(this, gLogger, "File (%s) could not be opened for reading.", path.c_str());
  }
  if (realDir.empty() || !real.startswith(realDir + "/"))
    throw searchError(this, gLogger, "Reading a file (%s) outside of the secure directory is not allowed.",
                      path.c_str());
  if (!Pathname(real).isFile()) throw searchError(this, gLogger, "'%s' is not a file.", path.c_str());
  if (!Pathname(real).r_ok())
    throw searchError(this, gLogger, "File (%s) could not be opened for reading.", path.c_str());
  return Pathname(real);
}

Pathname InputCSV::makeTempDir() const {
  static unsigned long retries = 0;
  if (retries == 0 && (!SL::getLimit("inputcsv", "mkdir_max_retries", retries) || retries == 0)) retries = 100;
  Pathname dir = OutputCSV::secureDir();
  for (unsigned long i = 0; i < retries; ++i) {
    Pathname t = dir / Str::fromFormat("inputcsvtmp_%lu", static_cast<unsigned long>(portable_rand()));
    if (t.mkdir()) return t;
  }
  throw searchError(this, gLogger, "Unable to create temporary directory (%lu retries).", retries);
}

void InputCSV::copyFile(const Pathname& from, const Pathname& to) const {
  ScopedFileDescriptor in(from.openReadOnly());
  if (!in.isValid()) throw searchError(this, gLogger, "Unable to open file='%s' error='%m'", from.c_str());
  ScopedFileDescriptor out(to.openCreateOnly());
  if (!out.isValid()) throw searchError(this, gLogger, "Unable to create temporary file='%s' error='%m'", to.c_str());
  char buf[65536];
  for (;;) {
    ssize_t n = in.read(buf, sizeof buf);
    if (n == 0) break;
    if (n < 0 || out.write(buf, static_cast<size_t>(n)) != n)
      throw searchError(this, gLogger, "Unable to copy to temporary file='%s' error='%m'", to.c_str());
  }
}

void InputCSV::execute(SearchResults& results, SearchResultsInfo& info) {
  Pathname source = resolve();
  Pathname tmpDir = makeTempDir();
  results.clearFileList();
  results.free(false);
  if (!_keepTempDir) results.addTempDir(tmpDir);
  Pathname copy = tmpDir / source.toLeaf();
  try {
    copyFile(source, copy);
  } catch (...) {
    if (_keepTempDir) tmpDir.removeRecursive();
    throw;
  }
  FileStar f = copy.fopen("r");
  if (!f.isValid()) throw searchError(this, gLogger, "File (%s) could not be opened for reading.", source.c_str());
  size_t bad = readRows(results, f, tmpDir);
  copy.unlink();
  if (bad)
    info.addWarning(Str::fromFormat("While reading input, encountered %lu inconsistent number of column errors.",
                                    static_cast<unsigned long>(bad)));
  if (_useFileColumnOrder) results.getColumnOrder(info.columnOrder);
}

size_t InputCSV::readRows(SearchResults& results, FileStar f, const Pathname& chunkDir) {
  FILELineReader reader(f, true);
  if (!_chunk) {
    results.resetBadLineCount();
    results.fromCSV(reader, _start, _max, _internal);
    return results.getBadLineCount();
  }
  // Chunked: rows go into files of maxresultrows rows as they are read,
  // all under one dictionary; only the first file is loaded at the end.
  const size_t chunkRows = SearchResults::getMaxResultRows(false);
  std::vector<sr_index_t> inds;
  results.resetBadLineCount();
  if (!results.readHeader(reader, inds, false, _internal)) return 0;
  for (unsigned long i = 0; i < _start; ++i)
    if (!results.readCSVLine(reader, inds, true)) break;
  std::vector<Pathname> chunks;
  size_t bad = 0;
  auto flush = [&]() {
    Pathname p = chunkDir / Str::fromFormat("chunk_%lu.csv", static_cast<unsigned long>(chunks.size()));
    FileStar out = p.fopen("w");
    bool ok = out.isValid() && results.toCSV(out, true, false) > 0;
    ok = out.isValid() && out.close() && ok;
    if (!ok) throw searchError(this, gLogger, "Unable to create temporary file='%s' error='%m'", p.c_str());
    chunks.push_back(p);
    bad += results.getBadLineCount();
    results.free(true);
    results.resetBadLineCount();
  };
  size_t rows = 0;
  while (rows < _max) {
    size_t before = results.size();
    if (!results.readCSVLine(reader, inds, false)) break;
    if (results.size() == before) continue;  // a bad line, counted
    ++rows;
    if (results.size() == chunkRows) flush();
  }
  bad += results.getBadLineCount();
  if (chunks.empty()) return bad;  // one chunk: stays in memory
  if (!results.empty()) flush();
  results.free(false);
  for (const Pathname& p : chunks) results.addFile(p);
  results.firstFile();
  results.readFile();
  return bad;
}
