#include "search/processors/HeadProcessor.h"

#include <algorithm>
#include <cctype>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("head");
}

HeadProcessor::HeadProcessor(const Str& n, bool reverse, unsigned long limit)
    : SearchProcessor(n), _reverse(reverse), _streaming(n == "prehead"), _limit(limit) {}

SearchProcessor* HeadProcessor::create(const Str& name) {
  if (name == "tail") return new HeadProcessor(name, true, 10);
  if (name == "reverse") return new HeadProcessor(name, true, 0);
  if (name == "prehead") return new HeadProcessor(name, false, 0);
  return new HeadProcessor(name, false, 10);
}

Str HeadProcessor::getStreamingOp() const {
  if (name != "head") return Str();
  return Str::fromFormat("prehead %lu", _limit);
}

void HeadProcessor::processArguments() {
  Str count;
  if (name != "reverse" && getNextArg(count, false) < args.size()) {
    bool digits = !count.empty();
    for (char c : count) digits = digits && isdigit(static_cast<unsigned char>(c));
    long n = 0;
    if (!count.tryToLong(n) || n <= 0 || !digits)
      throw searchError(this, gLogger, "Number of results must be a positive number!");
    getNextArg(count, true);
    _limit = static_cast<unsigned long>(n);
  }
  refuseLeftovers();
}

size_t HeadProcessor::trim(SearchResults& results, size_t allowed) {
  if (_reverse) results.reverse();
  size_t kept = 0;
  auto it = results.begin();
  while (it != results.end() && (_limit == 0 || kept < allowed)) {
    ++it;
    ++kept;
  }
  while (it != results.end()) {
    delete *it;
    it = results.erase(it);
  }
  return kept;
}

void HeadProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  if (_streaming) {
    size_t allowed = _seen < _limit ? _limit - _seen : 0;
    _seen += trim(results, allowed);
    if (_seen >= _limit) info.resultsComplete = true;
    return;
  }
  if (!results.hasFiles()) {
    trim(results, _limit);
    return;
  }
  // Spilled: walk the files in the needed order, keeping a running count.
  std::vector<Pathname> files = results.getFiles();
  if (_reverse) std::reverse(files.begin(), files.end());
  std::vector<Pathname> kept;
  size_t count = 0;
  for (const Pathname& p : files) {
    if (_limit != 0 && count >= _limit) {
      p.unlink();
      continue;
    }
    results.free(false);  // forgets the list (files stay); rebuilt below
    results.addFile(p);
    results.firstFile();
    results.readFile();
    count += trim(results, _limit == 0 ? 0 : _limit - count);
    results.writeFile();
    if (results.hasFiles()) kept.push_back(p);
    results.free(false);
  }
  results.free(false);
  for (const Pathname& p : kept) results.addFile(p);
  results.firstFile();
  if (!kept.empty()) results.readFile();
}
