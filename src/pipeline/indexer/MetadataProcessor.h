// MetadataProcessor: the search commands `metadata` and `premetadata`: the
// hosts, sources or source types of an index, one row each, from the index's
// word tables.
//
//   metadata type=<hosts|sources|sourcetypes> [index=<name>] [gather=<bool>]
//   premetadata type=... [index=<name>]          (internal: the map half;
//                                                 a gather option is ignored)
//
// A bare word stands for the type, with the warning "Assuming '<word>' is
// type argument."; no type at all fails. `index` defaults to the process's
// default index.
//
// Each row: firstTime, lastTime, recentTime (epoch seconds), totalCount,
// type (the type argument), the main field (host, source or sourcetype) and
// tags: the tags that the global tag map gives the keys
// "tag::<field>::<word>" and "tag::<word>", blank separated in name order,
// empty when none. Rows come in the order of their words, case-blind.
//
// Two forms, by `gather`:
//   false (`premetadata`, `metadata gather=false`): streamable; adds the
//     index's rows once, on its first call, after the rows it is given.
//   true (`metadata`): transforming; merges the rows it is fed (the output
//     of the map halves, from one or several servers) by the main field,
//     compared case-blind: counts add, the lowest first time, the highest
//     last and recent times stay. A row without the main field fails with
//     "No '<field>' key found in results.  Cannot merge metadata.". When it
//     was fed no row at all it reads the index itself, so `metadata` alone
//     in a pipeline gives the index's rows. Its map half is
//     "premetadata type=<type>[ index=<index>]".
//
// Reading an index fails when no index container is set for the process or
// the index is not known to it. One thread at a time, as every command.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "pipeline/indexer/WordPositionData.h"
#include "search/SearchProcessor.h"

class MetadataProcessor : public SearchProcessor {
 public:
  explicit MetadataProcessor(const Str& name);
  static SearchProcessor* create(const Str& name);
  // Registers "metadata" and "premetadata" (internal only) with SearchFactory.
  static void registerCommands();

  bool isStreamable() const override { return !_gather; }
  bool isTransforming() const override { return _gather; }
  bool isStreamingOpRequired() const override { return _gather; }
  Str getStreamingOp() const override;
  void processArguments() override;

  void execute(SearchResults& results, SearchResultsInfo& info) override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

 private:
  struct Row {
    Str word;
    uint64_t count = 0;
    int64_t firstTime = WordPositionData::kNoTime;
    int64_t lastTime = 0;
    int64_t recentTime = 0;
  };

  void warnAssumedType(SearchResultsInfo& info);
  // The rows of the index's table for the type. Throws when there is no
  // index to read.
  std::vector<WordPositionData> readIndex();
  void merge(const Row& row);
  void appendRow(SearchResults& results, const Row& row);
  Str tagsOf(const Str& word);

  bool _gather;
  Str _type;   // "hosts", "sources" or "sourcetypes"
  Str _field;  // "host", "source" or "sourcetype"
  Str _index;  // empty: the default index
  Str _assumedType;
  bool _generated = false;
  bool _sawInput = false;
  std::map<Str, Row> _merged;  // by lowercased word
};
