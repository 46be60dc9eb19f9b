// DedupOperator: `dedup` and its streaming half `prededup`.
//
// dedup [limit=<n>] [keepempty=<bool>] <field>... [sortby <sort arguments>]
// keeps, for each combination of the fields' values, the first `limit` rows
// (default 1). A row lacking one of the fields is dropped, or kept with
// keepempty=true. With sortby an inner SortProcessor ("dedup-sortby") orders
// the rows first. The counts live in a member map, so they carry across the
// calls of the streaming form and across spill files.
// One thread at a time.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/SortProcessor.h"

class DedupOperator : public SearchProcessor {
 public:
  explicit DedupOperator(const Str& name);
  static SearchProcessor* create(const Str& name) { return new DedupOperator(name); }

  bool isStreamable() const override { return _streaming; }
  Str getStreamingOp() const override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  // Drops the rows of the in-memory list that exceed their combination's
  // count.
  void dedupRows(SearchResults& results);

  bool _streaming;
  unsigned long _limit = 1;
  bool _keepEmpty = false;
  std::vector<Str> _fields;
  std::unique_ptr<SortProcessor> _sortby;
  std::map<std::vector<Str>, unsigned long> _counts;
  std::vector<Str> _key;  // scratch of dedupRows
};
