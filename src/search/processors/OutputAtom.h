// OutputAtom: `outputatom` renders the rows as an Atom feed into "_xml" of
// one row: the feed has the search's query id for its id, and one <entry>
// per row whose title is the row's "_raw" (cut at 80 bytes, on a UTF-8 boundary) or, without
// one, its first shown field, whose <updated> is the row's "_time" (epoch
// seconds) in UTC, and whose content is the row's <result> element of
// ResultsXml. One thread at a time, like every command.
#pragma once

#include <vector>

#include "search/processors/OutputRenderer.h"

class OutputAtom : public OutputRenderer {
 public:
  explicit OutputAtom(const Str& name) : OutputRenderer(name) {}
  static SearchProcessor* create(const Str& name) { return new OutputAtom(name); }

  // "2026-11-16T08:00:00Z" for epoch seconds (the fraction dropped).
  static Str isoTime(long long seconds);

 protected:
  void renderBegin(SearchResultsInfo& info, Str& out) override;
  void renderChunk(SearchResults& chunk, SearchResultsInfo& info) override;
  void renderRow(SearchResults& chunk, const SearchResult& row, size_t position, Str& out) override;
  void renderEnd(SearchResultsInfo& info, size_t rows, Str& out) override;

 private:
  Str _feedId;
  Str _now;
  std::vector<Str> _names;
  std::vector<sr_index_t> _keys;
  sr_index_t _raw = 0;
  sr_index_t _time = 0;
};
