// OutputRenderer: the base of the commands that render all rows into one
// text held in the field "_xml" of a single row (outputxml, outputraw,
// outputrawr, outputtext, outputatom). The search tool prints that field.
//
// execute() walks every row, in memory or over every spill chunk (in
// reverse, rows and chunks, when reversed() says so), hands each to
// renderRow() between renderBegin() and renderEnd(), and then replaces the
// rows (and the spill files) with the one row. Rows outside the window
// [offset, offset + count) are skipped; count 0 means all.
//
// Not streamable: the text needs every row. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"
#include "search/SearchResult.h"

class OutputRenderer : public SearchProcessor {
 public:
  explicit OutputRenderer(const Str& name) : SearchProcessor(name) {}

  bool isStreamable() const override { return false; }
  // Reads nothing by default; refuses any argument.
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 protected:
  // Called once per chunk (the dictionary can change between chunks) before
  // its rows, then renderRow for each row of the window.
  virtual void renderBegin(SearchResultsInfo& info, Str& out) = 0;
  virtual void renderChunk(SearchResults& chunk, SearchResultsInfo& info) = 0;
  virtual void renderRow(SearchResults& chunk, const SearchResult& row, size_t position, Str& out) = 0;
  virtual void renderEnd(SearchResultsInfo& info, size_t rows, Str& out) = 0;
  virtual bool reversed() const { return false; }

  unsigned long _offset = 0;
  unsigned long _count = 0;
};
