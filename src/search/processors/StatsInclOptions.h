// StatsInclOptions: what the statistics commands compute for one field.
//
// One flag per function, in the fixed output order of StatsFunc, each with
// the result names it is written under (a function asked twice under two
// names writes both), and the percentiles asked for with their names.
// Function names as the user writes them (case is ignored):
//   count c | distinct_count dc | avg mean | stdev | stdevp | var | varp |
//   sum | min | max | median | mode | first | last | range | values | list |
//   rate | perc<n> p<n> (n from 1 to 99)
// range  = numeric max - min;
// values = the distinct values in byte order (bounded by maxvalues);
// list   = the values in the order seen (bounded by maxvalues);
// rate   = (max - min) / (latest _time - earliest _time) over the rows that
//          carry the field: the per-second growth of a counter; written
//          only when the time span is not zero.
// The pseudo-functions expand through processArgSet:
//   default = count, dc, avg, min, max, sum
//   all     = count, dc, avg, stdev, stdevp, var, varp, sum, min, max,
//             median, mode, first, last, range
// (the multi-value, time-dependent and percentile functions are left out of
// both). A plain value object; any thread.
#pragma once

#include <map>
#include <vector>

#include "util/Str.h"

enum StatsFunc {
  SF_COUNT,
  SF_DC,
  SF_AVG,
  SF_STDEV,
  SF_STDEVP,
  SF_VAR,
  SF_VARP,
  SF_SUM,
  SF_MIN,
  SF_MAX,
  SF_MEDIAN,
  SF_MODE,
  SF_FIRST,
  SF_LAST,
  SF_RANGE,
  SF_VALUES,
  SF_LIST,
  SF_RATE,
  SF_PERC,  // the percentiles; their numbers live in StatsInclOptions::percs
  SF_NFUNCS
};

class StatsInclOptions {
 public:
  // Reads a function name ("Avg", "p95", "perc5"). Answers false for an
  // unknown name; `perc` receives the percentile's number (0 if the name is
  // a percentile whose number is not an integer from 1 to 99, which the
  // caller reports). REQUIRES: nothing.
  static bool lookupFunc(const Str& name, StatsFunc& func, unsigned& perc);
  // True for "default" and "all" (any case).
  static bool isArgSet(const Str& name);
  // The functions of the set `name` ("default" or "all").
  static std::vector<StatsFunc> processArgSet(const Str& name);
  // The canonical name of a function ("count", "dc", ...).
  static const char* funcName(StatsFunc f);

  // Asks for `f` under the result name `as`.
  void include(StatsFunc f, const Str& as);
  void includePerc(unsigned p, const Str& as);
  bool has(StatsFunc f) const { return !names[f].empty(); }
  bool any() const;
  // Whether the accumulator must keep the numbers, the distinct map, the
  // ordered list or the time bounds.
  bool needsNumbers() const { return has(SF_MEDIAN) || !percs.empty(); }
  bool needsDistinct() const { return has(SF_DC) || has(SF_MODE) || has(SF_VALUES); }
  bool needsList() const { return has(SF_LIST); }
  bool needsTime() const { return has(SF_RATE); }

  std::vector<Str> names[SF_NFUNCS];
  std::map<unsigned, std::vector<Str>> percs;
};
