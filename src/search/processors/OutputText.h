// OutputText: `outputtext` renders the rows as a plain text table into
// "_xml" of one row: a header of the column names, a rule of dashes, and one
// line per row, the columns padded to their widest cell and separated by
// two blanks. Newlines and tabs inside values become blanks; an absent
// field is an empty cell. Columns are those ResultsXml shows, in the same
// order, united across spill chunks by name.
//
// The table needs its widths before its first line, so the cells are kept
// until the end (this is a command for reading by people, not for bulk).
// One thread at a time, like every command.
#pragma once

#include <map>
#include <vector>

#include "search/processors/OutputRenderer.h"

class OutputText : public OutputRenderer {
 public:
  explicit OutputText(const Str& name) : OutputRenderer(name) {}
  static SearchProcessor* create(const Str& name) { return new OutputText(name); }

 protected:
  void renderBegin(SearchResultsInfo& info, Str& out) override;
  void renderChunk(SearchResults& chunk, SearchResultsInfo& info) override;
  void renderRow(SearchResults& chunk, const SearchResult& row, size_t position, Str& out) override;
  void renderEnd(SearchResultsInfo& info, size_t rows, Str& out) override;

 private:
  std::vector<Str> _columns;                // union, by first appearance
  std::map<Str, size_t> _columnOf;          // name -> position in _columns
  std::vector<std::pair<sr_index_t, size_t>> _chunkKeys;  // key -> column
  std::vector<std::vector<Str>> _cells;
};
