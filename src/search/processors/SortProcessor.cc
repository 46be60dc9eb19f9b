#include "search/processors/SortProcessor.h"

#include <algorithm>
#include <cassert>
#include <memory>

#include "search/FILELineReader.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/FileStar.h"
#include "util/Logger.h"

namespace {
Logger gLogger("sort");
}

SortProcessor::SortProcessor(const Str& n) : SearchProcessor(n), _streaming(n == "presort") {}

Str SortProcessor::getStreamingOp() const {
  assert(!_streaming);
  return Str("presort ") + _spec.toString();
}

void SortProcessor::parseSpec(const std::vector<Str>& words, const std::vector<bool>& quoted) {
  unsigned long limit = _spec.limit;
  try {
    _spec.parse(words, quoted);
  } catch (const SortSpecException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  if (_spec.limit == 0) _spec.limit = limit;
}

void SortProcessor::processArguments() {
  unsigned long limit = 0;
  getOption("limit", limit);
  std::vector<Str> words;
  std::vector<bool> quoted;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (a == nullptr) continue;
    if (a->isOption()) throw searchError(this, gLogger, "Invalid option '%s'", a->getText().c_str());
    words.push_back(a->getText());
    quoted.push_back(a->isQuoted());
    a->setConsumed();
  }
  _spec.limit = limit;
  parseSpec(words, quoted);
}

void SortProcessor::Result2Comp(const SearchResult* row, const std::vector<sr_index_t>& inds, size_t pos,
                                rescomp_t& rc) const {
  rc.vals.resize(inds.size());
  for (size_t k = 0; k < inds.size(); ++k)
    rc.vals[k].set(row->getValuePtr(inds[k]), _spec.types[k], _spec.ascending[k]);
  rc.res = const_cast<SearchResult*>(row);
  rc.pos = pos;
}

void SortProcessor::sortInMemory(SearchResults& results, SearchResultsInfo* info) {
  std::vector<sr_index_t> inds(_spec.fields.size(), SearchResults::nkeyindex);
  std::set<Str> missing;
  for (size_t k = 0; k < inds.size(); ++k) {
    inds[k] = results.keyIndex(_spec.fields[k]);
    if (inds[k] == SearchResults::nkeyindex) missing.insert(_spec.fields[k]);
  }
  if (info && !missing.empty() && !results.empty()) info->warnMissingFields(gLogger, missing);

  std::vector<rescomp_t> recs(results.size());
  size_t pos = 0;
  for (SearchResult* r : results) {
    Result2Comp(r, inds, pos, recs[pos]);
    ++pos;
  }
  std::sort(recs.begin(), recs.end());
  size_t keep = _spec.limit > 0 && _spec.limit < recs.size() ? _spec.limit : recs.size();
  for (size_t i = keep; i < recs.size(); ++i) delete recs[i].res;
  results.clear();
  for (size_t i = 0; i < keep; ++i) results.push_back(recs[i].res);
}

void SortProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!_streaming && results.getFiles().size() > 1) {
    multiMergeSort(results, info);
    return;
  }
  bool spilled = !_streaming && results.hasFiles();
  if (spilled) {
    results.firstFile();
    results.readFile();
  }
  sortInMemory(results, _streaming ? nullptr : &info);
  if (spilled) results.writeFile();
}

namespace {

// One spill file being merged: its reader, its rows mapped onto the union
// dictionary, and the current head row.
struct MergeInput {
  std::unique_ptr<FILELineReader> reader;  // owns its file
  std::vector<sr_index_t> inds;
  SearchResults rows;  // holds at most the head row, keyed like the union
  bool done = false;
};

}  // namespace

void SortProcessor::multiMergeSort(SearchResults& results, SearchResultsInfo& info) {
  std::vector<Pathname> files = results.getFiles();
  Pathname dir = files.front().toParent();
  size_t chunk = SearchResults::getMaxResultRows(false);

  // Pass 1: the union of the keys of every file.
  SearchResults merged;
  for (const Pathname& p : files) {
    SearchResults hdr;
    FileStar f(fopen(p.c_str(), "r"));
    std::vector<sr_index_t> inds;
    if (!f.isValid()) throw searchError(this, gLogger, "Error reading header for internal file (1st pass): %s", p.c_str());
    FILELineReader r(f, true);
    if (!hdr.readHeader(r, inds, false, true))
      throw searchError(this, gLogger, "Error reading header for internal file (1st pass): %s", p.c_str());
    merged.appendKeyMap(hdr);
  }

  // Pass 2: one reader per file, each mapping its columns onto the union.
  std::vector<std::unique_ptr<MergeInput>> inputs;
  for (const Pathname& p : files) {
    auto in = std::make_unique<MergeInput>();
    FileStar f(fopen(p.c_str(), "r"));
    if (!f.isValid())
      throw searchError(this, gLogger, "Error reading header for internal file (2nd pass): %s", p.c_str());
    in->reader = std::make_unique<FILELineReader>(f, true);
    in->rows.copyKeyMap(merged);
    if (!in->rows.readHeader(*in->reader, in->inds, true, true))
      throw searchError(this, gLogger, "Error reading header for internal file (2nd pass): %s", p.c_str());
    inputs.push_back(std::move(in));
  }

  std::vector<sr_index_t> inds(_spec.fields.size());
  std::set<Str> missing;
  for (size_t k = 0; k < inds.size(); ++k) {
    inds[k] = merged.keyIndex(_spec.fields[k]);
    if (inds[k] == SearchResults::nkeyindex) missing.insert(_spec.fields[k]);
  }
  if (!missing.empty()) info.warnMissingFields(gLogger, missing);

  // Reads the next row of input i into its head; false at its end.
  auto advance = [&](size_t i, rescomp_t& head) {
    MergeInput& in = *inputs[i];
    in.rows.free(true);
    while (!in.done) {
      if (!in.rows.readCSVLine(*in.reader, in.inds, false)) {
        in.done = true;
        break;
      }
      if (!in.rows.empty()) {
        Result2Comp(in.rows.front(), inds, i, head);
        return true;
      }
    }
    return false;
  };

  // The heads, kept as a heap ordered by rescomp_t (position = input number,
  // so equal keys come out in file order, which keeps the sort stable).
  std::vector<rescomp_t> heap;
  for (size_t i = 0; i < inputs.size(); ++i) {
    rescomp_t h;
    if (advance(i, h)) heap.push_back(std::move(h));
  }
  auto greater = [](const rescomp_t& a, const rescomp_t& b) { return b < a; };
  std::make_heap(heap.begin(), heap.end(), greater);

  std::vector<Pathname> outputs;
  SearchResults out;
  out.copyKeyMap(merged);
  size_t written = 0;
  unsigned long serial = 0;
  auto flush = [&]() {
    // Never a name in use: the inputs may be the outputs of an earlier merge.
    Pathname p;
    do {
      p = Pathname(dir + Str::fromFormat("/mmsort-%lu.csv", serial++));
    } while (p.exists());
    FileStar f(fopen(p.c_str(), "w"));
    bool ok = f.isValid();
    if (ok) {
      out.toCSV(f, true, false);
      ok = f.flush() && !f.error();
      ok = f.close() && ok;
    }
    if (!ok) throw searchError(this, gLogger, "Could not write to file: %s", p.c_str());
    outputs.push_back(p);
    out.free(true);
  };
  while (!heap.empty() && (_spec.limit == 0 || written < _spec.limit)) {
    std::pop_heap(heap.begin(), heap.end(), greater);
    rescomp_t& least = heap.back();
    size_t i = least.pos;
    SearchResult* row = out.addNewResult();
    row->usurp(*inputs[i]->rows.front());
    ++written;
    if (out.size() >= chunk) flush();
    if (advance(i, least)) {
      std::push_heap(heap.begin(), heap.end(), greater);
    } else {
      heap.pop_back();
    }
  }
  if (!out.empty() || outputs.empty()) flush();
  inputs.clear();

  results.clearFileList();  // the presorted inputs are consumed
  results.free(false);
  for (const Pathname& p : outputs) results.addFile(p);
  results.firstFile();
  results.readFile();
}
