#include "search/processors/OutputTransformerRaw.h"

#include "search/SL.h"
#include "search/SearchResults.h"

void OutputTransformerRaw::renderChunk(SearchResults& chunk, SearchResultsInfo&) { _raw = chunk.keyIndex(SL::Raw); }

void OutputTransformerRaw::renderRow(SearchResults&, const SearchResult& row, size_t, Str& out) {
  const Str* v = row.getValuePtr(_raw);
  if (!v) return;
  out += *v;
  if (!v->endswith('\n')) out += '\n';
}
