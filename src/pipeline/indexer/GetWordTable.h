// GetWordTable: a "GET" module that lists one of the index's word tables
// (hosts, sources or source types) with their event counts, into
// Query::resultMap()[keyword]: rows sorted most events first (then by
// word), words without events left out, cut to the range of the keyword's
// value ("hosts::0-9").
//
// GetHosts, GetSources and GetSourceTypes are this class with their table,
// keyword and malformed-range text.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetModule.h"

class GetWordTable : public GetModule {
 public:
  enum Table { kHosts = 1, kSources = 2, kSourceTypes = 3 };

  GetWordTable(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name, Table table, const char* keyword,
               const char* malformed)
      : GetModule(query, std::move(args), name), _table(table), _keyword(keyword), _malformed(malformed) {}

  void runModule() override;

 private:
  Table _table;
  const char* _keyword;
  const char* _malformed;
};
