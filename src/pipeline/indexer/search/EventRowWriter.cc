#include "pipeline/indexer/search/EventRowWriter.h"

#include <cstdio>

#include "framework/PipelineData.h"
#include "search/SL.h"
#include "search/SearchResults.h"

EventRowWriter::EventRowWriter(const Str& indexName, bool extractKeyValues)
    : _index(indexName), _kv(extractKeyValues) {}

void EventRowWriter::bind(SearchResults& results) {
  _raw = results.keyIndex(SL::Raw, true);
  _time = results.keyIndex(SL::Timestamp, true);
  _cd = results.keyIndex(PipelineData::cdKey, true);
  _serial = results.keyIndex(Str("_serial"), true);
  _host = results.keyIndex(SL::Host, true);
  _source = results.keyIndex(SL::Source, true);
  _sourceType = results.keyIndex(SL::SourceType, true);
  _indexKey = results.keyIndex(Str("index"), true);
  if (_kv) _kvt.bind(results);
  _bound = &results;
}

SearchResult* EventRowWriter::append(SearchResults& results, const DataWrapper& event, uint64_t serial) {
  if (&results != _bound) bind(results);
  SearchResult* r = results.addNewResult();
  char buf[48];
  r->setValue(_raw, event.raw);
  r->setValue(_time, buf, size_t(snprintf(buf, sizeof buf, "%ld", long(event.time))));
  r->setValue(_cd, buf, event.value.cdInto(buf, sizeof buf));
  r->setValue(_serial, buf, size_t(snprintf(buf, sizeof buf, "%llu", (unsigned long long)serial)));
  r->setValue(_host, event.host);
  r->setValue(_source, event.source);
  r->setValue(_sourceType, event.sourceType);
  r->setValue(_indexKey, _index);
  if (_kv) _kvt.addFields(results, *r, event.raw.data(), event.raw.size());
  return r;
}
