#include "search/processors/OutputCSV.h"

#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/ResultsXml.h"
#include "search/processors/SpilledCsvWriter.h"
#include "util/Logger.h"

namespace {
Logger gLogger("outputcsv");
}

OutputCSV::OutputCSV(const Str& n) : SearchProcessor(n) {}

Pathname OutputCSV::secureDir() { return LoaderInfo::getInstance().getHomePath() / "var/run/velmor"; }

void OutputCSV::processArguments() {
  getOption("usexml", _useXml);
  getOption("singlefile", _singleFile);
  getOption("collapse", _collapse);
  getOption("internal", _internal);
  getOption("stripcr", _stripCR);
  if (getNextNonOpt(_fileName, true) >= args.size())
    throw searchError(this, gLogger, "usage: %s [preserve=<bool>] <filename>", name.c_str());
  refuseLeftovers();
  if (_fileName.find("..") != Str::npos) throw searchError(this, gLogger, "Filenames may not contain '..'");
  bool bad = _fileName.empty() || _fileName == ".";
  for (char c : _fileName) bad = bad || c == '/' || static_cast<unsigned char>(c) < 0x20;
  if (bad) throw searchError(this, gLogger, "Invalid file name '%s'", _fileName.c_str());
  if (!_fileName.endswith(".csv")) _fileName += ".csv";
}

void OutputCSV::execute(SearchResults& results, SearchResultsInfo& info) {
  Pathname path = secureDir() / _fileName;
  size_t rows = SpilledCsvWriter::countRows(results);
  if (rows == 0) {
    Str text = Str::fromFormat("No results to write to file (%s).", path.c_str());
    gLogger.info("%s", text.c_str());
    info.addInfo(text);
    if (_useXml) renderXml(results, info, Str());
    return;
  }
  if (_collapse && results.hasFiles()) results.collapse(Pathname(), 0, 0, SearchResults::kAllRows, true);
  Str failure;
  try {
    if (results.hasFiles() && !_singleFile) {
      Pathname dir = secureDir() / _fileName.substr(0, _fileName.size() - 4);
      writeMulti(results, info, dir);
    } else {
      writeSingle(results, info, path);
    }
  } catch (const SearchProcessorException& e) {
    if (!_useXml) throw;
    failure = e.what();
  }
  if (_useXml) renderXml(results, info, failure);
}

void OutputCSV::writeSingle(SearchResults& results, SearchResultsInfo& info, const Pathname& path) {
  size_t bytes = 0;
  if (!results.hasFiles()) {
    bytes = results.toCSV(path, _internal, _stripCR);
    if (bytes == 0) throw searchError(this, gLogger, "Could not write to file (%s).", path.c_str());
  } else {
    // Through a temporary name in the same directory, then a rename.
    Pathname tmp(path + ".tmp");
    FileStar f = tmp.fopen("w");
    if (!f.isValid()) throw searchError(this, gLogger, "Could not write to file (%s).", path.c_str());
    Str error;
    bool ok = SpilledCsvWriter::write(results, f, _internal, _stripCR, bytes, error);
    ok = f.close() && ok;
    if (!ok || !tmp.renameTo(path)) {
      tmp.unlink();
      if (!error.empty())
        throw searchError(this, gLogger, "Error reading internal file's header: %s", error.c_str());
      throw searchError(this, gLogger, "Could not write to file (%s).", path.c_str());
    }
  }
  info.addInfo(Str::fromFormat("%lu bytes written to %s", static_cast<unsigned long>(bytes), path.c_str()));
}

void OutputCSV::writeMulti(SearchResults& results, SearchResultsInfo& info, const Pathname& dir) {
  if (!dir.isDir()) {
    dir.removeRecursive();
    if (!dir.mkdir_p())
      throw searchError(this, gLogger, "Could not create directory for multi-file output (%s).", dir.c_str());
  }
  // Old chunk files of an earlier run would mix with these ones.
  std::vector<Str> old;
  dir.readDirectory(old);
  for (const Str& o : old)
    if (o.startswith("result_file_")) (dir / o).unlink();
  size_t total = 0, n = 0;
  results.firstFile();
  while (results.readFile()) {
    Pathname out = dir / Str::fromFormat("result_file_%lu.csv", static_cast<unsigned long>(n++));
    size_t bytes = results.toCSV(out, _internal, _stripCR);
    if (bytes == 0 && !results.empty())
      throw searchError(this, gLogger, "Could not write to result file (%s).", out.c_str());
    total += bytes;
    if (!results.nextFile()) break;
  }
  results.firstFile();
  results.readFile();
  info.addInfo(Str::fromFormat("%lu bytes written to %s", static_cast<unsigned long>(total), dir.c_str()));
}

void OutputCSV::renderXml(SearchResults& results, SearchResultsInfo& info, const Str& failure) {
  Str xml;
  if (!failure.empty()) {
    SearchResultsInfo only;
    only.addError(failure);
    ResultsXml::appendMessages(only, xml);
    ResultsXml::replaceWithXmlRow(results, xml);
    return;
  }
  size_t limit = SearchResults::getMaxResultRows(false);
  size_t rows = 0;
  bool truncated = false;
  SearchResults shown;
  results.firstFile();
  while (results.readFile()) {
    for (SearchResult* r : results) {
      if (rows == limit) {
        truncated = true;
        break;
      }
      SearchResult* c = shown.addNewResult();
      shown.copyResult(*r, *c);
      ++rows;
    }
    if (truncated || !results.nextFile()) break;
  }
  if (rows == 0) {
    xml = "<results type='empty'/>\n";
  } else {
    Str csv;
    shown.toCSV(csv, _internal, _stripCR);
    xml = "<results type='csv'>\n";
    ResultsXml::escape(csv, xml);
    if (!xml.endswith('\n')) xml += '\n';
    xml += "</results>\n";
  }
  if (truncated)
    info.addWarning(
        "Too many results for memory.  Not all results are included in this output.  This may be resolved "
        "increasing 'maxresultrows' of the 'search' stanza in limits.conf.");
  ResultsXml::replaceWithXmlRow(results, xml);
}
