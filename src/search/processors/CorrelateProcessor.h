// CorrelateProcessor: `correlate`, the co-occurrence matrix of fields.
//
//   correlate [type=cocur] [<field>...]
//
// Fields: the ones given, or every field not starting with "_" (at most
// `maxfields` of the `correlate` stanza, default 1000, in name order; the
// rest are dropped with a warning). A field counts in a row when present and
// not empty. Output: one row per field A in ascending name order, with
// `RowField`=A and, for every field B, a column B holding
//   rows holding A and B / rows holding A or B
// printed "%f" (1.000000 on the diagonal). cocur is the only type.
// Counts carry across execute_input calls; one thread at a time.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "search/SearchProcessor.h"

class CorrelateProcessor : public SearchProcessor {
 public:
  explicit CorrelateProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new CorrelateProcessor(name); }

  bool isStreamable() const override { return false; }
  bool isTransforming() const override { return true; }
  void processArguments() override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::set<Str> _given;
  std::map<Str, unsigned long> _single;
  std::map<std::pair<Str, Str>, unsigned long> _both;  // first < second
};
