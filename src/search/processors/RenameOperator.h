// RenameOperator: `rename [<old> (AS|TO|->) <new>]+` renames fields in the
// dictionary (renameKey), never touching a row. "*" may stand on both sides
// in equal numbers: what the stars of <old> matched fills those of <new>.
// One thread at a time.
#pragma once

#include <utility>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/FieldPattern.h"

class RenameOperator : public SearchProcessor {
 public:
  explicit RenameOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new RenameOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::vector<std::pair<FieldPattern, FieldPattern>> _renames;
};
