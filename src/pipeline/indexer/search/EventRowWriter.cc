#include "pipeline/indexer/search/EventRowWriter.h"

#include <cstdio>

#include "framework/PipelineData.h"
#include "search/SL.h"
#include "search/SearchResults.h"

EventRowWriter::EventRowWriter(const Str& indexName, bool extractKeyValues)
    : _index(indexName), _kv(extractKeyValues), _ins(nullptr, false, 0) {}

const KVTransformer::RuleList& EventRowWriter::rulesFor(const DataWrapper& event) {
  if (_rules && event.source == _lastSource && event.host == _lastHost && event.sourceType == _lastType)
    return *_rules;
  _lastSource = event.source;
  _lastHost = event.host;
  _lastType = event.sourceType;
  _conf.assign("source::");
  _conf += event.source;
  _conf += "|host::";
  _conf += event.host;
  _conf += "|sourcetype::";
  _conf += event.sourceType;
  auto it = _rulesByConf.find(_conf);
  if (it == _rulesByConf.end()) {
    if (_rulesByConf.size() >= 4096) _rulesByConf.clear();
    it = _rulesByConf.emplace(_conf, KVTransformer::getRules(_conf)).first;
  }
  _rules = it->second;
  return *_rules;
}

void EventRowWriter::bind(SearchResults& results) {
  _raw = results.keyIndex(SL::Raw, true);
  _time = results.keyIndex(SL::Timestamp, true);
  _cd = results.keyIndex(PipelineData::cdKey, true);
  _serial = results.keyIndex(Str("_serial"), true);
  _host = results.keyIndex(SL::Host, true);
  _source = results.keyIndex(SL::Source, true);
  _sourceType = results.keyIndex(SL::SourceType, true);
  _indexKey = results.keyIndex(Str("index"), true);
  if (_kv) {
    _kvt.bind(results);
    _ins.bind(results);
    _ins.setMaxFields(KVTransformer::maxCols());
  }
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
  if (_kv) {
    const KVTransformer::RuleList& rules = rulesFor(event);
    if (rules.mode == KVTransformer::MODE_NONE) return r;
    if (!rules.rules.empty()) {
      _ins.setRow(r);
      KVTransformer::applyRules(rules, _ins, 0, false);
    }
    _kvt.addFields(results, *r, event.raw.data(), event.raw.size());
  }
  return r;
}
