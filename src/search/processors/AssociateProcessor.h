// AssociateProcessor: `associate`, which finds field values that predict
// other field values.
//
//   associate [supcnt=<n>] [supfreq=<f>] [improv=<f>] [<field>...]
//
// Fields: the ones given, or every field not starting with "_"; a field
// keeps at most 1000 distinct values (later new ones are ignored). For each
// reference pair (A=a) held by at least `supcnt` rows (default 100) and by
// at least `supfreq` of all rows (default `supfreq` of the `associate`
// stanza, else 0.1), and each target pair (B=b) of another field:
//   support     = rows with A=a and B=b / all rows
//   confidence  = rows with A=a and B=b / rows with A=a
//   improvement = confidence - rows with B=b / rows holding B
// A rule is written when its improvement is at least `improv` (default
// `improv` of the stanza, else 0.5). Output, by improvement (largest first),
// then reference and target in ascending order: reference_key,
// reference_value, target_key, target_value, support, confidence,
// improvement (the last three "%f").
// Counts carry across execute_input calls; one thread at a time.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "search/SearchProcessor.h"

class AssociateProcessor : public SearchProcessor {
 public:
  explicit AssociateProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new AssociateProcessor(name); }

  bool isStreamable() const override { return false; }
  bool isTransforming() const override { return true; }
  void processArguments() override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

 private:
  typedef std::pair<Str, Str> Item;  // field, value

  unsigned long _supCnt = 100;
  double _supFreq = 0.1, _improv = 0.5;
  std::vector<Str> _fields;
  unsigned long _rows = 0;
  std::map<Str, unsigned long> _fieldRows;         // rows holding the field
  std::map<Item, unsigned long> _items;            // rows holding field=value
  std::map<std::pair<Item, Item>, unsigned long> _pairs;
};
