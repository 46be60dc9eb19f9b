// MultiKVTransformer: the `multikv` command: an event whose text is a table
// (the output of ps, netstat, df, ...) becomes one row per table line, with
// a field per column.
//
//   multikv [conf=<stanza>] [fields <name>...] [filter <term>...] [options]
// (options: MultiKVOptions.)
//
// Without conf= the table is found by auto_extract:
//  - Header scoring. Each line among the first max_header_lookahead lines
//    (from start_line, or from the end of the previous table) and not past
//    max_header_line is scored over its white-space words: +2 for a word
//    without digits, -3 for a word that starts with a digit or holds "=",
//    0 otherwise; +3 more when the next line has at least two words, one of
//    them starting with a digit (data follows). A line of fewer than two
//    words scores 0. The best score above 0 wins, the earliest on a tie;
//    forceheader=<n> names the header line instead.
//  - Columns are the header's words, at their positions. Body lines are
//    cut under them (TableSection::align), so cells may hold blanks and
//    right-aligned numbers find their column. A header word one blank
//    before the next is joined to it when no body line has a cell under
//    both ("Local Address"). Names pass through
//    KVTransformer::cleanKey ("%CPU" -> "CPU", "Recv-Q" -> "Recv_Q"); a
//    name that cleans to nothing, or repeats, becomes "Column_<n>" (from 1).
//    With noheader=true every line is a body line and cells are its words,
//    named Column_1, Column_2, ...
//  - The body runs from the line after the header to a blank line (with
//    multitable, the default; another table may follow) or the end. A line
//    whose first word starts at or after the last column's start continues
//    the previous row: its text joins that row's last cell and _raw, after
//    a newline.
// Every table line gives a row with _raw = the line, the column fields (only
// those of `fields`, if given), and _mkv_parent (the event's number in this
// run, from 1), _mkv_child (the line's number in the event's tables, from
// 1) and _mkv_id ("<parent>.<child>"). With copyattrs the row first gets
// the event's fields (not _raw). The rows take the event's place
// (rmorig=false keeps the event after them); an event without a table is
// dropped unless passthru=true.
//
// Streamable: every event is handled on its own. One thread.
#pragma once

#include <memory>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/processors/MultiKVOptions.h"
#include "search/processors/TableSection.h"

class ConfigMultiKV;

class MultiKVTransformer : public SearchProcessor {
 public:
  explicit MultiKVTransformer(const Str& name);
  ~MultiKVTransformer() override;
  static SearchProcessor* create(const Str& name) { return new MultiKVTransformer(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Makes the table rows of the row at `pos` and inserts them before it;
  // the row itself is left where it is. Returns the rows made.
  size_t extract(SearchResults& results, SearchResults::iterator pos);

  // The header line of `lines` within [from, limit), by the scoring above;
  // -1 when no line scores above 0. Exposed for tests.
  static long findHeader(const std::vector<StrSegment>& lines, size_t from, size_t limit);
  static long scoreHeader(const std::vector<StrSegment>& lines, size_t i);

  const MultiKVOptions& options() const { return _opts; }

 private:
  struct Table {
    std::vector<Str> names;
    std::vector<TableSection::Span> columns;
    std::vector<size_t> body;  // line numbers
    bool align = true;         // cells under the columns, else by the body rule / words
  };
  // Finds the next table at or after line `from`; `next` receives where to
  // look for another. False when there is none.
  bool nextTable(const std::vector<StrSegment>& lines, size_t from, size_t end, bool first, Table& t,
                 size_t& next) const;
  // The header line as cut: with a stanza, after header.replace.
  StrSegment headerLine(const std::vector<StrSegment>& lines, size_t h) const;
  void nameColumns(const std::vector<StrSegment>& lines, const StrSegment& header, Table& t) const;

  MultiKVOptions _opts;
  std::unique_ptr<ConfigMultiKV> _conf;
  unsigned long _parents = 0;
  mutable Str _headerText;  // the header line after header.replace
};
