// EventRowWriter: turns events read back from an index into result rows with
// the fields every index-reading command gives: _raw, _time, _cd, _serial,
// host, source, sourcetype, index, and, with key=value extraction on, the
// fields that the search-time rules of the event's source give (a field
// that already exists is left as it is).
//
// The keys are interned once per SearchResults (bind), so that appending a
// row does no key lookup; numbers are formatted into a stack buffer. With
// extraction on, the pairs are found by KVTransformer (whose rules apply:
// first occurrence wins, no "_" keys). One thread uses a writer.
#pragma once

#include <cstdint>
#include <map>

#include "pipeline/indexer/DataWrapper.h"
#include "search/KVScanner.h"
#include "search/SearchResult.h"
#include "search/processors/KVTransformer.h"
#include "search/processors/ResultInserter.h"
#include "util/Str.h"

class SearchResults;

class EventRowWriter {
 public:
  EventRowWriter(const Str& indexName, bool extractKeyValues);
  // Interns the keys in `results`. REQUIRES: before append to those results,
  // and again after anything else changed their dictionary (a free(), a
  // removed or renamed key): call it once per batch.
  void bind(SearchResults& results);
  // Appends one row; `serial` becomes _serial.
  SearchResult* append(SearchResults& results, const DataWrapper& event, uint64_t serial);

 private:
  Str _index;
  bool _kv;
  // The rules of the event's source (cached for the last source, host and
  // source type seen).
  const KVTransformer::RuleList& rulesFor(const DataWrapper& event);

  KVScanner _kvt;
  ResultInserter _ins;
  Str _lastSource, _lastHost, _lastType, _conf;
  KVTransformer::RuleListPtr _rules;
  std::map<Str, KVTransformer::RuleListPtr> _rulesByConf;
  const SearchResults* _bound = nullptr;
  sr_index_t _raw = 0, _time = 0, _cd = 0, _serial = 0, _host = 0, _source = 0, _sourceType = 0, _indexKey = 0;
};
