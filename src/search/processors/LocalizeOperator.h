// LocalizeOperator: `localize [maxresults=<n>] [maxspan=<span>]
// [maxpause=<span>]`. Finds the regions of time that hold events: over the
// first `maxresults` rows (default 10000) that have a `_time`, taken in time
// order, a region grows while the pause to the next event is at most
// `maxpause` (default "1m") and the region stays within `maxspan` (default
// "5m"). The rows are replaced by one row per region, latest region first:
// `starttime`, `endtime` (seconds), `duration` (endtime - starttime),
// `count` (events in it) and `_time` (= starttime).
// A span is a number with an optional unit: s, m, h, d (seconds without).
// Not streamable. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class LocalizeOperator : public SearchProcessor {
 public:
  explicit LocalizeOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new LocalizeOperator(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // "90", "30s", "5m", "2h", "1d" in seconds; false for anything else.
  static bool parseSpan(const Str& text, double& seconds);

 private:
  unsigned long _maxResults = 10000;
  double _maxSpan = 300;
  double _maxPause = 60;
};
