// NewChartProcessor: `chart` and `timechart` (the flag `time`).
//
//   chart [options] <func>(<field>) [as <name>]... [by <x> [<series>]]
//         [where <func> in top<n>|bottom<n>]
//   timechart [options] <func>(<field>) [as <name>]... [by <series>]
//         [where <func> in top<n>|bottom<n>]
//
// A chart is built from other commands, made by name through SearchFactory
// when the arguments are read:
//   - `bin <bin options> <x>` for the x axis: always for timechart (x is
//     `_time`), for chart only when one of bins, span, start, end is given
//     (a chart by a plain field such as host does not bin);
//   - with a series, `newseriesfilter <x> <series> <rank>(<value>) in
//     top<n> ...` that folds the series past the limit into otherstr;
//   - `stats <value> as <name>... by <x> [<series>]`.
// execute runs them in that order over all rows (spilled files included),
// logs the span chosen for x ("x-axis span: '%s'"), then pivots: one row per
// x value, x first, then a column per series (sorted by name, with nullstr
// and then otherstr last) holding the value (a series named like the x
// field gets the column "<series field>: <name>"); without a series the columns
// are x and the values. Rows are in ascending x order: numerically when
// every x reads as a number or a numeric bin label, else by text.
// getStreamingOp() answers the map half: "[prebin ... |] [fillnull ... |]
// prestats ... by <x> [<series>]" (prebin only with a span). Rows of that
// map half (prestats rows) go through the same steps: binning again is
// harmless at the same span, and without a span x is binned here, over the
// range of all the groups. A new run of the pipeline starts from fresh
// inner commands.
//
// Values. `count` (or `c`) alone counts rows and is named as written; other
// values are named `<func>(<field>)` as written unless renamed with `as`.
// `default` and `all` are accepted without a series.
//
// Series limit. Without a where clause the series are limited to the top
// `limit` (default 10; 0 means no limit) by the sum of their values over
// the x axis. `where <rank> in top<n>` / `bottom<n>` ranks by <rank> over
// the x axis instead (sum, max, min, avg, range, median, dc, count; a
// `count` here means the series' total, as sum does). Series that do not
// make it become otherstr ("OTHER") with useother=true (the default), or
// are dropped; their rows are renamed before stats runs, so the OTHER
// column is exact for every function. Without a series, limit and where
// do nothing. Rows without the series field are
// the series nullstr ("NULL") with usenull=true (the default), else
// dropped.
//
// Options: usenull, nullstr, useother, otherstr (as above; a warning says
// they do nothing without a series), limit, bins, span, start, end (handed
// to bin), fixedrange (timechart: bin over the search's time bounds when
// they are known and start/end are not given), cont (default true for
// timechart, false for chart): holes in a binned x axis are filled with a
// row for every missing bin between the first and the last, time bins by
// the calendar at the span, numeric bins at the span. Empty cells of count
// and distinct-count values read 0 when cont is on; other empty cells stay
// absent.
//
// One thread; owned by its pipeline. The inner commands are owned here.
#pragma once

#include <memory>
#include <vector>

#include "search/SearchProcessor.h"

class NewChartProcessor : public SearchProcessor {
 public:
  NewChartProcessor(const Str& name, bool time) : SearchProcessor(name), _time(time) {}
  static SearchProcessor* create(const Str& name) { return new NewChartProcessor(name, name == "timechart"); }

  bool isStreamable() const override { return false; }
  bool acceptsPartialResults() const override { return false; }
  Str getStreamingOp() const override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  struct DataSpec {
    Str spec;   // as the user wrote it ("count", "avg(x)", "default")
    Str func;   // lower case
    Str name;   // result column; empty for default/all
  };

  void readSpecs(const std::vector<Str>& words, size_t& i);
  void readByClause(const std::vector<Str>& words, size_t& i);
  void readWhereClause(const std::vector<Str>& words, size_t& i);
  Str binText() const;
  Str statsText() const;
  Str filterText() const;
  // (Re)makes the inner commands from the options.
  void buildInner();
  SearchProcessor* makeInner(const Str& cmd, const Str& text) const;
  void pivot(SearchResults& results, SearchResultsInfo& info, const Str& span);
  bool countLike() const;

  bool _time;
  std::vector<DataSpec> _specs;
  Str _x, _series;
  bool _bin = false;
  // Options.
  bool _useNull = true, _useOther = true, _fixedRange = false, _cont = false;
  Str _nullStr = "NULL", _otherStr = "OTHER";
  bool _seriesOptionGiven = false;
  unsigned long _limit = 10;
  Str _bins, _span, _start, _end;
  // The series limit.
  bool _filter = false;
  Str _rankFunc = "sum", _comp = "in", _criteria;
  // Inner commands.
  std::unique_ptr<SearchProcessor> _binProc, _filterProc, _statsProc;
};
