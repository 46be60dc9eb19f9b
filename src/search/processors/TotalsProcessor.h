// TotalsProcessor: `addtotals [fieldname=<name>] [<field>...]` adds to every
// row the sum of the named fields, or of every public field (not starting
// with "_") whose value is a number, in the field "Total" (or <name>). A
// row with nothing numeric gets no total. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class TotalsProcessor : public SearchProcessor {
 public:
  explicit TotalsProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new TotalsProcessor(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // A sum as text: integral values without a decimal point.
  static Str formatNumber(double v);

 private:
  Str _dest = "Total";
  std::vector<Str> _fields;
};
