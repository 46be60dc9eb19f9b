// HighlightCommand: `highlight` / `hilite <term>...`. Marks words for the
// output formats: the terms (lower case) join the info's keywords, which the
// renderers mark in `_raw`, and each row whose `_raw` contains some of them
// as whole words (cut at the same breaker bytes as `abstract`, compared
// without case) gets `_hilite`: those terms, blank separated, in the order
// they were given. Without terms the info's keywords are used as they are.
// Streamable. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class HighlightCommand : public SearchProcessor {
 public:
  explicit HighlightCommand(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new HighlightCommand(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::vector<Str> _terms;  // lower case, in the order given, no repeats
};
