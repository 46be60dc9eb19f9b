// AnomalousValueProcessor: `anomalousvalue`, which finds rows holding rare
// values of otherwise regular fields.
//
//   anomalousvalue [action=filter|annotate|summary] [pthresh=<f>]
//                  [maxanofreq=<f>] [minsupcount=<n>] [minsupfreq=<f>]
//                  [minnormfreq=<f>] [<field>...]
//
// Fields: the ones given, or every field not starting with "_". For each
// field the values (present, not empty) are counted over all rows. A field
// is judged only when it is held by at least `minsupcount` rows (default
// 100) and by at least `minsupfreq` of all rows (default from `minsupfreq`
// of the `anomalousvalue` stanza, else 0.05), and when its most common value
// has a frequency of at least `minnormfreq` (stanza `minnormfreq`, else
// 0.01). In a judged field a value is anomalous when its frequency among the
// field's rows is at most `pthresh` (default 0.01); if the anomalous values
// together exceed `maxanofreq` (default 0.05) of the field's rows the field
// is too irregular and is not judged after all.
// Actions: `filter` (default) keeps only rows holding an anomalous value;
// `annotate` keeps every row; both add to the anomalous rows
// `anomalous_fields` (names joined by ", ") and `anomaly_score` (the sum of
// -log10(frequency) of the anomalous values, "%f"). `summary` replaces the
// rows by one row per judged field: field, count, distinct_count,
// anomalous_values, anomalous_rows.
// Reads every spill file before it changes any; one thread at a time.
#pragma once

#include <map>
#include <vector>

#include "search/SearchProcessor.h"

class AnomalousValueProcessor : public SearchProcessor {
 public:
  explicit AnomalousValueProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new AnomalousValueProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  struct FieldCounts {
    unsigned long count = 0;
    std::map<Str, unsigned long> values;
    bool judged = false;
  };
  void countRows(SearchResults& results);
  void judge();
  // Annotates (and with filter, drops) the in-memory rows.
  void mark(SearchResults& results);

  Str _action = "filter";
  double _pthresh = 0.01, _maxAnoFreq = 0.05, _minSupFreq = 0.05, _minNormFreq = 0.01;
  unsigned long _minSupCount = 100;
  std::vector<Str> _fields;
  unsigned long _rows = 0;
  std::map<Str, FieldCounts> _counts;
};
