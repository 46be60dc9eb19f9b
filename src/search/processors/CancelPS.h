// CancelPS: the `cancelps <cancel_id>+` command. Cancels the running
// searches named by its arguments through SearchCancel ("*" cancels every
// search). Leaves the rows alone. One thread, like every command.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class CancelPS : public SearchProcessor {
 public:
  explicit CancelPS(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new CancelPS(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  std::vector<Str> ids;
};
