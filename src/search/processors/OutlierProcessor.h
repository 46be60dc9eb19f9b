// OutlierProcessor: `outlier`, which removes or clamps numeric outliers.
//
//   outlier [type=iqr] [action=tf|transform|rm|remove] [param=<f>]
//           [uselower=<bool>] [mincount=<n>] [<field>...]
//
// For each field (default: every field not starting with "_" that holds a
// number in some row) the numbers are sorted; Q1 is element floor(n/4) and
// Q3 element floor(3n/4) (no interpolation). Values above
// Q3 + param * (Q3 - Q1) are outliers, and with uselower=true also values
// below Q1 - param * (Q3 - Q1). param defaults to 2.5. A field with fewer
// than `mincount` (default 10) numbers is left alone. action=tf (the
// default) replaces an outlier by the bound it crossed, printed with the
// largest number of decimals among the field's values; action=rm drops
// every row holding an outlier. Values that are not numbers are left alone.
// type=iqr is the only method. Reads all rows (every spill file) before it
// changes any; one thread at a time.
#pragma once

#include <map>
#include <vector>

#include "search/SearchProcessor.h"

class OutlierProcessor : public SearchProcessor {
 public:
  explicit OutlierProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new OutlierProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  struct Bounds {
    std::vector<double> values;
    unsigned decimals = 0;
    bool useLow = false, useHigh = false;
    double low = 0, high = 0;
  };
  void collect(SearchResults& results);
  // Clamps or removes the outliers of the in-memory rows.
  void apply(SearchResults& results);

  bool _remove = false;
  double _param = 2.5;
  bool _useLower = false;
  unsigned long _minCount = 10;
  std::vector<Str> _fields;
  std::map<Str, Bounds> _bounds;
};
