// OutputTransformerRaw: `outputraw` puts the "_raw" text of every row, one
// per line, into "_xml" of one row; rows without "_raw" are skipped.
// OutputTransformerRawr derives from it and only reverses the order.
// One thread at a time, like every command.
#pragma once

#include "search/processors/OutputRenderer.h"

class OutputTransformerRaw : public OutputRenderer {
 public:
  explicit OutputTransformerRaw(const Str& name) : OutputRenderer(name) {}
  static SearchProcessor* create(const Str& name) { return new OutputTransformerRaw(name); }

 protected:
  void renderBegin(SearchResultsInfo&, Str&) override {}
  void renderChunk(SearchResults& chunk, SearchResultsInfo& info) override;
  void renderRow(SearchResults& chunk, const SearchResult& row, size_t position, Str& out) override;
  void renderEnd(SearchResultsInfo&, size_t, Str&) override {}

 private:
  sr_index_t _raw = 0;
};
