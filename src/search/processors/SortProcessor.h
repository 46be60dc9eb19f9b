// SortProcessor: `sort` and its streaming half `presort`.
//
// `sort [limit=<n>] [<count>] [+|-] <field>... [desc|down]` orders the rows
// by the keys of a SortSpec. The reducing form gets rows whose spill files
// were each sorted by `presort` on the streaming side, so it only merges
// them (multiMergeSort) into new files of maxresultrows rows; in memory it
// sorts with std::sort over flat rescomp_t records built once per row.
// Ties keep the input order. Rows past the limit are deleted.
//
// `dedup ... sortby` uses an inner SortProcessor made with setSpec().
// One thread at a time, like every command.
#pragma once

#include <set>

#include "search/SearchProcessor.h"
#include "search/processors/SortSpec.h"

#include "search/SearchResult.h"

class SortProcessor : public SearchProcessor {
 public:
  explicit SortProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new SortProcessor(name); }

  bool isStreamable() const override { return _streaming; }
  bool isStreamingOpRequired() const override { return true; }
  // "presort " and the same specification. REQUIRES: not the streaming form.
  Str getStreamingOp() const override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Sets the sort keys directly (for commands that embed a sort).
  void setSpec(const SortSpec& spec) { _spec = spec; }
  const SortSpec& getSpec() const { return _spec; }
  // Parses words as `sort` arguments; faults come out in this command's
  // exception form.
  void parseSpec(const std::vector<Str>& words, const std::vector<bool>& quoted);

  // Sorts the in-memory rows of `results` and applies the limit. Warns in
  // `info` about fields missing from every row when `warn`.
  void sortInMemory(SearchResults& results, SearchResultsInfo* info);
  // Merges the spill files of `results`, each already sorted, into new
  // files "mmsort-<n>.csv" of maxresultrows rows; the first is then loaded.
  void multiMergeSort(SearchResults& results, SearchResultsInfo& info);

  // Fills `rc` with the keys of `row`; `inds` are the key indices of the
  // fields (0 = absent from the dictionary).
  void Result2Comp(const SearchResult* row, const std::vector<sr_index_t>& inds, size_t pos,
                   rescomp_t& rc) const;

 private:
  bool _streaming;
  SortSpec _spec;
};
