// DiscretizationProcessor: `bin` (also `bucket`, `discretize`) and its map
// half `prebin` (also `prediscretize`): replaces a number or a time by the
// interval that holds it.
//
//   bin [bins=<n>] [span=<span>] [start=<v>] [end=<v>] <field> [as <name>]
//
// Mode. The field `_time`, or a span with a time unit (SLUtil.h lists the
// words), selects time mode; otherwise values are numbers. In time mode a
// bare span number means seconds.
//
// Span. A given span is used as it is. Otherwise the range [start, end] is
// the given start/end or, for the ones not given, the smallest and largest
// value of the field, found by a first pass over every spilled file. Time
// mode then walks the ladder "1s" "10s" "1min" "10min" "1h" "1day" "1month"
// for the first rung that covers the range in bins-1 steps; numeric mode
// takes the power of ten just above range/bins, ten times more if the range
// aligned to that span still needs more than `bins` bins. `bins` defaults to
// 100. start/end only steer the span choice: values outside are binned too.
// A span that needs more than `maxbins` (stanza `discretize`, default 50000)
// bins fails; with a given span this is checked over the values seen.
//
// Output. The target field (the field itself without `as`) gets:
//   - time mode: the bin's start, whole UTC seconds; bins are aligned in the
//     user's time zone (SLUtil::userTimezone()): a 1day bin starts at local
//     midnight, a 1month bin on the first of the month;
//   - numeric mode: "<low>-<high>", both printed "%.*f" with the decimals of
//     the span (span 10: "10-20"; span 0.5: "1.5-2.0"; negative: "-20--10").
//     A label reads back as its low bound, so labels sort numerically by
//     their leading number and binning a label again with the same span
//     gives the same label: `prebin ... | bin ...` equals `bin ...`.
// Rows without the field are left alone; a value that is not a number (or
// not finite, or a time beyond +-1e11 s) fails the search.
//
// Streaming. `bin` runs once over all rows (isStreamable false); with a
// span given getStreamingOp() answers the `prebin` text with the same span,
// so the binning can run chunk by chunk before the reduce side. `prebin`
// without a span leaves the rows untouched.
//
// Owner: the pipeline; one thread. Public accessors serve chart/timechart,
// which build this command by name and read the chosen span back.
#pragma once

#include <cstdint>
#include <ctime>

#include "search/SLUtil.h"
#include "search/SearchProcessor.h"

class SearchResult;

class DiscretizationProcessor : public SearchProcessor {
 public:
  explicit DiscretizationProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new DiscretizationProcessor(name); }

  bool isStreamable() const override { return _streaming; }
  Str getStreamingOp() const override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The span used by the last execute ("10s", "1min", "10", "0.1", or the
  // given span text as written); the given span text before execute; empty
  // when no span was given and nothing has been binned yet.
  const Str& spanText() const { return _usedSpan; }
  bool isTimeSpan() const { return _isTimeSpan; }
  // Nominal seconds of the time span used (0 in numeric mode or before).
  long spanSeconds() const { return _spanSeconds; }
  const Str& field() const { return _field; }
  // For producers that bin event times without making rows: whether this
  // is `prebin` with a time span given (so every bin is known in advance),
  // the start of the bin of second `t` as execute() would write it (false
  // when out of range), and the bin count check execute() does at its end
  // (throws as execute would).
  bool binsTimeBySpan() const { return _streaming && _haveSpan && _isTimeSpan; }
  bool binTime(int64_t t, int64_t& start);
  void checkBinnedTimes() const;
  const Str& targetName() const { return _target; }

  // Chooses the time span for the range [start, end] (see above).
  // REQUIRES: a range set by execute or by setRange.
  void computeTimeSpan(time_t& seconds, time_t& count, tl_unit_t& unit) const;
  // Chooses the numeric span for the range. REQUIRES: as computeTimeSpan.
  void computeNumSpan(double& span) const;
  // Sets the range the span computations read (tests; execute sets it too).
  void setRange(double start, double end) {
    _start = start;
    _end = end;
  }

  // The `maxbins` limit of stanza `discretize` (read once).
  static unsigned long maxBins();
  // Reads a value or a numeric bin label; false if neither.
  static bool parseBinValue(const Str& text, double& value);

 private:
  bool discoverRange(SearchResults& results);
  void scanValues(SearchResults& results, bool& any, double& lo, double& hi);
  void chooseSpan();
  void changeValues(SearchResults& results);
  void checkBinCount(double lo, double hi) const;
  bool binOne(const Str& value, Str& out);

  bool _streaming;
  unsigned long _bins = 0;
  Str _spanGiven;
  bool _haveSpan = false;
  bool _isTimeSpan = false;
  Str _startText, _endText;
  bool _haveStart = false, _haveEnd = false;
  bool _fixedRange = false;
  double _start = 0, _end = 0;
  Str _field, _target;

  // The span in force.
  Str _usedSpan;
  double _numSpan = 0;
  int _decimals = 0;
  long _spanSeconds = 0, _spanCount = 0;
  tl_unit_t _spanUnit = TL_SECOND;
  // Lowest and highest bin start seen, for the bin-count check.
  bool _seen = false;
  double _minBin = 0, _maxBin = 0;
};
