#include "search/processors/OutputTransformerNew.h"

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/ResultsXml.h"
#include "util/Logger.h"

namespace {
Logger gLogger("outputxml");
const char kHead[] = "<?xml version=\"1.0\"?>\n";
}  // namespace

void OutputTransformerNew::processArguments() {
  getOption("offset", _offset);
  getOption("count", _count);
  Str seg;
  if (getOption("segmentation", seg)) {
    if (seg == "full")
      _segment = true;
    else if (seg != "none")
      throw searchError(this, gLogger, "Invalid segmentation '%s'; use none or full", seg.c_str());
  }
  refuseLeftovers();
}

void OutputTransformerNew::renderBegin(SearchResultsInfo& info, Str& out) {
  _keywords.clear();
  for (const Str& k : info.keywords) {
    Str lower(k);
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    _keywords.insert(lower);
  }
  out += kHead;
  out += "<results>\n";
}

void OutputTransformerNew::renderChunk(SearchResults& chunk, SearchResultsInfo& info) {
  ResultsXml::columns(chunk, info, _names, _keys);
}

void OutputTransformerNew::renderRow(SearchResults&, const SearchResult& row, size_t position, Str& out) {
  ResultsXml::appendResult(row, position, _names, _keys, _keywords, _segment, out);
}

void OutputTransformerNew::renderEnd(SearchResultsInfo& info, size_t rows, Str& out) {
  if (rows == 0) {
    Str messages;
    out = kHead;
    if (ResultsXml::appendMessages(info, messages))
      out += messages;
    else
      out += "<results/>\n";
    return;
  }
  out += "</results>\n";
}
