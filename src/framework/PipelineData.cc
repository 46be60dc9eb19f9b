#include "framework/PipelineData.h"

const Str PipelineData::rawKey = "_raw";
const Str PipelineData::timeKey = "_time";
const Str PipelineData::hostKey = "host";
const Str PipelineData::sourceKey = "source";
const Str PipelineData::sourceTypeKey = "sourcetype";
const Str PipelineData::indexKey = "_MetaData:Index";
const Str PipelineData::metaKey = "_meta";
const Str PipelineData::cdKey = "_cd";

std::shared_ptr<const Str> PipelineData::get(const Str& key) const {
  auto it = _map.find(key);
  return it == _map.end() ? nullptr : it->second;
}

const Str& PipelineData::getStr(const Str& key) const {
  static const Str kEmpty;
  auto it = _map.find(key);
  return it == _map.end() || !it->second ? kEmpty : *it->second;
}

std::vector<Str> PipelineData::keys() const {
  std::vector<Str> out;
  out.reserve(_map.size());
  for (const auto& [k, v] : _map) out.push_back(k);
  return out;
}
