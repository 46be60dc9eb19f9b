#include "search/processors/TagsAnnotateProcessor.h"

#include <algorithm>
#include <set>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "search/SL.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("tags");
}

void TagsAnnotateProcessor::processArguments() {
  if (getOption("outputfield", _output) && _output.empty())
    throw searchError(this, gLogger, "Field names must not be empty strings");
  std::set<Str> fields;
  getFieldSet(fields);
  // Keep the order given, not the set's order.
  for (size_t i = 0; i < args.size(); ++i)
    if (args[i]->type == Arg::STRING && !args[i]->isOption()) {
      const Str& t = static_cast<StringArg*>(args[i])->getText();
      if (fields.count(t)) _fields.push_back(t);
    }
  if (_fields.empty()) _fields = {SL::Host, SL::Source, SL::SourceType, SL::EventTypes};
  refuseLeftovers();
}

void TagsAnnotateProcessor::lookupTags(const Str& field, const Str& value, std::vector<Str>& out) {
  out.clear();
  PropertiesMap stanza;
  PropertyPages::instance("tags").pushLayer(stanza, field + "=" + value, false);
  for (const auto& kv : stanza)
    if (kv.second == "enabled") out.push_back(kv.first);
  std::sort(out.begin(), out.end());
}

const std::vector<Str>& TagsAnnotateProcessor::tagsOf(const Str& field, const Str& value) {
  auto key = std::make_pair(field, value);
  auto it = _cache.find(key);
  if (it != _cache.end()) return it->second;
  std::vector<Str>& tags = _cache[key];
  lookupTags(field, value, tags);
  return tags;
}

void TagsAnnotateProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  if (results.empty()) return;
  std::vector<sr_index_t> in(_fields.size()), out(_fields.size());
  for (size_t k = 0; k < _fields.size(); ++k) {
    in[k] = results.keyIndex(_fields[k]);
    out[k] = results.keyIndex("tag::" + _fields[k], true);
  }
  sr_index_t all = results.keyIndex(_output, true);
  std::set<Str> unionTags;
  Str joined;
  for (SearchResult* r : results) {
    unionTags.clear();
    for (size_t k = 0; k < _fields.size(); ++k) {
      const Str* v = r->getValuePtr(in[k]);
      if (!v) continue;
      const std::vector<Str>& tags = tagsOf(_fields[k], *v);
      if (tags.empty()) continue;
      joined.clear();
      for (const Str& t : tags) {
        if (!joined.empty()) joined += ' ';
        joined += t;
        unionTags.insert(t);
      }
      r->setValue(out[k], joined);
    }
    if (unionTags.empty()) continue;
    joined.clear();
    for (const Str& t : unionTags) {
      if (!joined.empty()) joined += ' ';
      joined += t;
    }
    r->setValue(all, joined);
  }
}
