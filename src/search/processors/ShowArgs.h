// ShowArgsProcessor: the `showargs` command, a tool for seeing what a
// command receives after evaluation. Replaces the rows with one row whose
// field "args" holds the evaluated argument text (subsearches already run)
// and whose field "arg_count" holds the number of tokens.
#pragma once

#include "search/SearchProcessor.h"

class ShowArgsProcessor : public SearchProcessor {
 public:
  explicit ShowArgsProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new ShowArgsProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  size_t count = 0;
};
