// ContingencyProcessor: `contingency` (a table of co-occurrence counts) and
// its map half `precontingency`.
//
//   contingency [maxrows=<n>] [maxcols=<n>] [minrowcover=<f>] [mincolcover=<f>]
//               [usetotal=<bool>] [totalstr=<text>] <rowfield> <colfield>
//
// Counts the rows holding both fields (not empty). The table has one row per
// row value and one column, named by the value, per column value. Row values
// are ordered by their total, largest first, ties in ascending value order,
// and kept until `maxrows` are kept or the kept ones cover `minrowcover` of
// the counted rows; columns likewise with `maxcols`/`mincolcover` (covers
// default 1.0, must be > 0 and <= 1). maxrows and maxcols default to, and
// may not exceed, `maxvalues` of the `ctable` stanza in `limits` (default
// 1000); 0 means that maximum. A missing cell is "0". With usetotal (the
// default) each row ends with a column `totalstr` (default "TOTAL") holding
// all counted rows of that row value, cut-off columns included, and a last
// row, whose row field is `totalstr`, holds the column totals and the
// grand total. A column value equal to the row field's name or to
// `totalstr` gets no column of its own (it still counts in the totals).
// The map half writes one row per pair with `_ctcount`; the reduce half adds
// them, so `precontingency a b | contingency a b` equals the plain command.
// One thread at a time.
#pragma once

#include <map>
#include <utility>

#include "search/SearchProcessor.h"

class ContingencyProcessor : public SearchProcessor {
 public:
  explicit ContingencyProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new ContingencyProcessor(name); }

  bool isStreamable() const override { return _pre; }
  bool isTransforming() const override { return true; }
  Str getStreamingOp() const override { return "precontingency " + _rowField + " " + _colField; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

 private:
  void count(SearchResults& results);

  bool _pre;
  Str _rowField, _colField;
  unsigned long _maxRows = 0, _maxCols = 0;
  double _minRowCover = 1.0, _minColCover = 1.0;
  bool _useTotal = true;
  Str _totalStr = "TOTAL";
  std::map<std::pair<Str, Str>, unsigned long> _cells;
};
