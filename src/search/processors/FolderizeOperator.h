// FolderizeOperator: `folderize attr=<field> [sep=<text>] [size=<field>]
// [minfolders=<n>] [maxfolders=<n>]`. Groups hierarchical values (paths,
// dotted names) into folders: the values of `attr` are cut into parts at
// `sep` (default "::"), and they are grouped by their first d parts, with d
// the deepest level that gives at most `maxfolders` (default 20) groups,
// stopping as soon as there are `minfolders` (default 2) or more. A group
// that stands for more than itself is named by its prefix followed by `sep`
// and "*". The rows are replaced by one row per group, in name order, with
// `attr` (the folder name), `size` (sum of the rows' `size` field, default
// "totalCount", or 1 for rows without a number there) and `memberCount`
// (distinct values in the folder).
// Not streamable. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class FolderizeOperator : public SearchProcessor {
 public:
  explicit FolderizeOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new FolderizeOperator(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  Str _attr;
  Str _sep = "::";
  Str _size = "totalCount";
  unsigned long _minFolders = 2;
  unsigned long _maxFolders = 20;
};
