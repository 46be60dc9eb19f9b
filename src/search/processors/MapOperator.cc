#include "search/processors/MapOperator.h"

#include <memory>

#include "libbundle/StringMgr.h"
#include "search/ProcessorArg.h"
#include "search/ResultsArg.h"
#include "search/SearchParser.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/Subsearch.h"
#include "util/Logger.h"

namespace {
Logger gLogger("map");

Str msg(const char* key, const Str& arg) { return Str::fromFormat(StringMgr::str(key).c_str(), arg.c_str()); }
}  // namespace

void MapOperator::processArguments() {
  bool hasSearch = getOption("search", _search);
  std::vector<Str> rest;
  getNextArgs(rest, false);
  if (hasSearch && rest.empty()) {
    Str t = _search.trim();
    if (t.empty() || t == "|") throw searchError(this, gLogger, "%s", StringMgr::str("MAP_USAGE").c_str());
    refuseLeftovers();
    return;
  }
  if (!hasSearch && rest.size() == 1)
    throw searchError(this, gLogger, "%s", msg("MAP_NO_SAVED_VELMOR__S", rest[0]).c_str());
  throw searchError(this, gLogger, "%s", StringMgr::str("MAP_USAGE").c_str());
}

bool MapOperator::substitute(const Str& text, const SearchResults& rs, const SearchResult& row, Str& out,
                             Str& missing) {
  out.clear();
  size_t i = 0;
  while (i < text.size()) {
    size_t d = text.find('$', i);
    size_t e = d == Str::npos ? Str::npos : text.find('$', d + 1);
    if (e == Str::npos) {
      out.append(text, i, Str::npos);
      break;
    }
    out.append(text, i, d - i);
    if (e == d + 1) {
      out += '$';
    } else {
      Str name = text.substr(d + 1, e - d - 1);
      sr_index_t k = SearchResults::isInternalField(name) ? SearchResults::nkeyindex : rs.keyIndex(name);
      const Str* v = row.getValuePtr(k);
      if (!v) {
        missing = name;
        return false;
      }
      out += *v;
    }
    i = e + 1;
  }
  return true;
}

void MapOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  SearchResults out;
  Str text, missing;
  for (const SearchResult* r : results) {
    if (!substitute(_search, results, *r, text, missing)) {
      info.addWarning(msg("MAP_VALUE_NOT_FOUND__S", missing));
      continue;
    }
    text.trimInPlace();
    Str full = text.startswith('|') ? Str(text.substr(1)).trim() : "search " + text;
    std::unique_ptr<Arg> rows;
    try {
      ProcessorArg pa(SearchParser::parse(full, false));
      rows.reset(Subsearch::run(pa, true, info));
    } catch (const std::exception& e) {
      throw searchError(this, gLogger, "%s %s", msg("MAP_CANNOT_RUN__S", full).c_str(), e.what());
    }
    if (rows && rows->type == Arg::RESULTS) {
      SearchResults* got = static_cast<ResultsArg*>(rows.get())->getResults();
      if (got) out.append(*got);
    }
  }
  // Rows and fields are replaced; the chunk chain of a spilled set stays.
  results.usurp(out, true);
}
