// StringConcatProcessor: `strcat [allrequired=<bool>] <src>... <dest>`
// joins the sources into the field <dest>: a quoted source is a literal,
// any other a field name (absent fields add nothing). With allrequired=true
// a row lacking a source field gets no destination. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class StringConcatProcessor : public SearchProcessor {
 public:
  explicit StringConcatProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new StringConcatProcessor(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  bool _allRequired = false;
  std::vector<Str> _srcs;
  std::vector<bool> _literal;
  Str _dest;
};
