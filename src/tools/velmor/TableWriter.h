// TableWriter: rows of a report as an aligned text table: a header of the
// column names, a rule of dashes, then one line per row. Every column is
// as wide as its widest cell (counted in characters, UTF-8 aware); cells
// that hold only a number are right-aligned, others left-aligned; the last
// column is not padded. A value's newlines (a multi-value field) print as
// "; " so a row stays one line. A column no row has a value for is left
// out.
//
// A plain value; one thread.
#pragma once

#include <vector>

#include "util/Str.h"

class SearchResults;

class TableWriter {
 public:
  // Columns to show, in order; empty: every field in order of first
  // appearance but the hidden ones ("_..."), of which _time and _raw show.
  explicit TableWriter(std::vector<Str> columns = {}) : _columns(std::move(columns)) {}

  Str format(const SearchResults& rows) const;

  // Display width of UTF-8 text (code points; continuation bytes skipped).
  static size_t width(const Str& text);
  static bool isNumber(const Str& text);

 private:
  std::vector<Str> _columns;
};
