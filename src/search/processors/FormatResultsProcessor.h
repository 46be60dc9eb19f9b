// FormatResultsProcessor: `format [<resultstart> <colstart> <colseparator>
// <colend> <rowseparator> <resultend>]`. Replaces all rows by one row whose
// `_query` is the search text built from them by ResultsFormatter (the
// defaults are "(" "(" "AND" ")" "OR" ")"). This is how a subsearch's rows
// become a search; a subsearch without `format` gets the same text.
// Needs every row, so it is not streamable. One thread at a time.
#pragma once

#include <memory>

#include "search/ResultsFormatter.h"
#include "search/SearchProcessor.h"

class FormatResultsProcessor : public SearchProcessor {
 public:
  explicit FormatResultsProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new FormatResultsProcessor(name); }

  bool isStreamable() const override { return false; }
  // Either no arguments or exactly six.
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  ResultsFormatter _formatter;
};
