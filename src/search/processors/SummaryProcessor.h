// SummaryProcessor: `summary`, a profile of every field, and its map half
// `presummary`. Neither takes arguments.
//
// Output: one row per field, in ascending field name order. Fields whose
// names start with "_" are left out. A value counts when present and not
// empty. Columns:
//   field           the field's name
//   count           rows holding the field
//   coverage        count * 100 / all rows, "%f"
//   distinct_count  distinct values (a lower bound when is_exact is 0)
//   is_exact        1, or 0 once the field had more than `maxvalues` (of
//                   the `top` stanza) distinct values and some were dropped
//   top_values      the 5 most common values, "value (count)" joined by
//                   ", ", largest count first, ties in ascending value order
//   bottom_values   the 5 least common ones, smallest count first
//   mean, stdev     only when every value is a finite number; "%f"; stdev is
//                   the sample deviation (0 for a single value)
//
// The map half replaces a chunk by one row: `group_summary`=1, `_group_size`
// (rows of the chunk) and per field f the columns `_sp_ct_f__` (count),
// `_sp_dc_f__` (distinct values kept), `_sp_tv<i>_f__`/`_sp_tc<i>_f__` (the
// more common half of the kept values and their counts),
// `_sp_bv<i>_f__`/`_sp_bc<i>_f__` (the other half) and, for numeric fields,
// `_sp_mean_f__`/`_sp_stdev_f__` ("%.17g"). The reduce half merges the value
// counts, so while no field reaches `maxvalues` the result over any chunking
// equals the plain command; mean and stdev are computed from the merged
// values then, and from the merged moments after a limit.
// One thread at a time; state lives in members between execute_input calls.
#pragma once

#include <map>

#include "search/SearchProcessor.h"

class SummaryProcessor : public SearchProcessor {
 public:
  explicit SummaryProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new SummaryProcessor(name); }

  bool isStreamable() const override { return _pre; }
  bool isTransforming() const override { return true; }
  Str getStreamingOp() const override { return "presummary"; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

 private:
  struct FieldInfo {
    unsigned long count = 0;
    std::map<Str, unsigned long> values;
    unsigned long kept = 0;  // sum of the counts in `values`
    bool numeric = true;
    double n = 0, sum = 0, sumsq = 0;  // moments of the numeric values
  };
  void addValue(FieldInfo& fi, const Str& value, unsigned long n);
  void readPlain(SearchResults& results);
  void readMapHalf(SearchResults& results);
  // mean and stdev of a numeric field; false when it is not numeric.
  static bool moments(const FieldInfo& fi, double& mean, double& stdev);

  bool _pre;
  unsigned long _total = 0;
  std::map<Str, FieldInfo> _fields;
};
