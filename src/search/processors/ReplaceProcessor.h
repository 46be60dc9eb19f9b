// ReplaceProcessor: `replace <value> WITH <new> [, <value> WITH <new>]...
// [IN <field>...]` replaces whole field values that match <value> ("*" is a
// wildcard) by <new>, whose stars take what the value's stars matched. The
// first matching pair wins. Without IN every public field is looked at.
// One thread at a time.
#pragma once

#include <utility>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/FieldPattern.h"

class ReplaceProcessor : public SearchProcessor {
 public:
  explicit ReplaceProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new ReplaceProcessor(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::vector<std::pair<FieldPattern, FieldPattern>> _pairs;
  std::vector<Str> _fields;
  std::vector<Str> _stars;  // scratch of execute
};
