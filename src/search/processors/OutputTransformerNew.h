// OutputTransformerNew: `outputxml [offset=<n>] [count=<n>]
// [segmentation=<none|full>]` renders the rows as the results document of
// ResultsXml (the XML form of the REST answers) into "_xml" of one row.
//
// `offset` (default 0) rows are skipped and at most `count` are rendered
// (default: all). With segmentation "full" the words of "_raw" are marked
// as <sg> elements, and the search's keywords (info.keywords) as
// <sg h='1'>. When there are no rows but messages, the message form is
// rendered instead; with neither, an empty <results/> document.
// One thread at a time, like every command.
#pragma once

#include <vector>

#include "search/processors/OutputRenderer.h"

class OutputTransformerNew : public OutputRenderer {
 public:
  explicit OutputTransformerNew(const Str& name) : OutputRenderer(name) {}
  static SearchProcessor* create(const Str& name) { return new OutputTransformerNew(name); }

  void processArguments() override;

 protected:
  void renderBegin(SearchResultsInfo& info, Str& out) override;
  void renderChunk(SearchResults& chunk, SearchResultsInfo& info) override;
  void renderRow(SearchResults& chunk, const SearchResult& row, size_t position, Str& out) override;
  void renderEnd(SearchResultsInfo& info, size_t rows, Str& out) override;

 private:
  bool _segment = false;
  std::set<Str> _keywords;
  std::vector<Str> _names;
  std::vector<sr_index_t> _keys;
};
