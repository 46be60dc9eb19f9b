// NewSeriesFilterProcessor: `newseriesfilter`, the series limit of a split
// chart (internal: chart and timechart build it by name).
//
//   newseriesfilter <xfield> <seriesfield> <aggregator> <comp> <criteria>
//                   [usenull=<bool>] [nullstr=<text>] [useother=<bool>]
//                   [otherstr=<text>]
//
// The rows are events (or the rows of the map half of stats) that carry an
// x value and a series value. The filter decides which series stay:
//
//   <aggregator>  <rank>(<value>): <value> is what the chart plots for one
//                 x and one series, a stats specifier (`count`, `c` or
//                 `<func>(<field>)`); <rank> folds a series' plotted values
//                 (one per x) into the number it is judged by: count, c, dc,
//                 distinct_count, sum, avg, mean, min, max, range, median.
//                 `sum(count)` judges a series by its number of events,
//                 `max(avg(delay))` by its worst average. Only the numeric
//                 plotted values take part; a series without any ranks last
//                 and fails every comparison.
//   <comp>        `in` or `notin` with <criteria> `top<n>` / `bottom<n>`
//                 (case ignored): the n series with the largest (smallest)
//                 numbers, ties broken by series name; or one of
//                 < <= > >= = == != with a numeric <criteria>.
//
// Then every row of a series that did not pass is given the series
// `otherstr` ("OTHER") with useother=true (the default), or dropped. Before
// all this a row without the series field (or with an empty one) takes the
// series `nullstr` ("NULL") with usenull=true (the default), and is dropped
// otherwise; the NULL series is judged like any other. The plotted values
// come from an inner `stats <value> by <xfield> <seriesfield>` run over all
// chunks (the rows themselves are left in place for the chart's own stats,
// which then folds the OTHER rows exactly, whatever the function). Rows
// without the x field are not judged; they keep their series only if it
// passed.
//
// Not streamable: it needs every chunk before it can rewrite one. It walks
// spilled files itself. One thread; owned by its pipeline or by the chart.
#pragma once

#include <memory>
#include <set>

#include "search/SearchProcessor.h"

class NewSeriesFilterProcessor : public SearchProcessor {
 public:
  explicit NewSeriesFilterProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new NewSeriesFilterProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Gives rows without `series` (or with it empty) the value `nullStr` when
  // useNull, else drops them; over every spilled file.
  static void fillNullSeries(SearchResults& results, const Str& series, bool useNull, const Str& nullStr);


  // The series that passed the last execute (tests, the chart).
  const std::set<Str>& keptSeries() const { return _kept; }

 private:
  enum Comp { CMP_IN, CMP_NOTIN, CMP_LT, CMP_LE, CMP_GT, CMP_GE, CMP_EQ, CMP_NE };

  // A fresh inner stats over the plotted values.
  void makeStats();
  // The series that pass, from the plotted values in `plotted`.
  void judge(SearchResults& plotted);
  void changeValues(SearchResults& results);

  Str _x, _series, _rankFunc, _valueSpec;
  Comp _comp = CMP_IN;
  bool _top = true;
  unsigned long _n = 10;
  double _threshold = 0;
  bool _useNull = true, _useOther = true;
  Str _nullStr = "NULL", _otherStr = "OTHER";
  std::unique_ptr<SearchProcessor> _stats;
  std::set<Str> _kept;
};
