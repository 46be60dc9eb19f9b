#include "search/processors/PageOperator.h"

#include <climits>

#include "libbundle/StringMgr.h"
#include "search/ProcessorArg.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SpilledRows.h"
#include "util/Logger.h"

namespace {
Logger gLogger("page");

// A whole decimal number without sign.
bool parseCount(const Str& s, unsigned long& out) {
  if (s.empty()) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return s.tryToUnsignedLong(out);
}
}  // namespace

void PageOperator::evalArgs(SearchResultsInfo& info) {
  if (!argsEvaluated) {
    for (size_t i = 0; i < args.size(); ++i) {
      if (args[i]->type != Arg::PROCESSOR) continue;
      if (i + 1 != args.size() || _sub) {
        _misplacedSub = true;
        continue;
      }
      _sub.reset(static_cast<ProcessorArg*>(args[i])->release());
      delete args[i];
      args.erase(args.begin() + static_cast<long>(i));
      --i;
    }
  }
  if (_misplacedSub) {
    // Leave no subsearch for the base class to run.
    ArgList kept;
    for (Arg* a : args) {
      if (a->type == Arg::PROCESSOR)
        delete a;
      else
        kept.push_back(a);
    }
    args = kept;
  }
  SearchProcessor::evalArgs(info);
}

void PageOperator::processArguments() {
  auto fail = [&](const Str& text) { return searchError(this, gLogger, "%s", text.c_str()); };
  if (_misplacedSub) throw fail(StringMgr::str("PAGE_USAGE_SUBPIPELINE"));
  Str max;
  if (getOption("maxresults", max)) {
    if (!parseCount(max, _maxResults) || _maxResults == 0)
      throw fail(Str::fromFormat(StringMgr::str("PAGE_BAD_MAXRESULTS__S").c_str(), max.c_str()));
  }
  Str a, b;
  if (getNextArg(a, true) == args.size() || getNextArg(b, true) == args.size())
    throw fail(StringMgr::str("PAGE_USAGE"));
  if (!parseCount(a, _start) || !parseCount(b, _end)) throw fail(StringMgr::str("PAGE_USAGE_BOUND"));
  if (_start > UINT_MAX || _end > UINT_MAX) throw fail(StringMgr::str("PAGE_BAD_BOUNDS"));
  if (_start > _end)
    throw fail(Str::fromFormat(StringMgr::str("PAGE_BAD_BOUNDS_VALUES__U_U").c_str(),
                               static_cast<unsigned>(_start), static_cast<unsigned>(_end)));
  if (nextArgIndex() != args.size()) throw fail(StringMgr::str("PAGE_USAGE_SUBPIPELINE"));
}

void PageOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  SpilledRows::loadAll(results);
  unsigned long count = _end - _start;
  if (_maxResults && count > _maxResults) count = _maxResults;
  unsigned long pos = 0;
  for (auto it = results.begin(); it != results.end(); ++pos) {
    if (pos >= _start && pos - _start < count) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
  if (!_sub) return;
  bool first = info.firstInPipeline;
  bool complete = info.resultsComplete;
  _sub->execute(results, info);
  info.firstInPipeline = first;
  info.resultsComplete = complete;
}
