// SelectOperator: `fields [+|-] <field>...` keeps only the named fields
// ("+" or no sign) or removes them ("-"). "*" is a wildcard. When keeping,
// fields whose names start with "_" stay as well, and the column order of
// the info becomes the named fields (wildcards expanded in dictionary
// order). Works on the dictionary only (removeKey); no row is touched.
// One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/FieldPattern.h"

class SelectOperator : public SearchProcessor {
 public:
  explicit SelectOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SelectOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  bool _remove = false;
  std::vector<FieldPattern> _patterns;
};
