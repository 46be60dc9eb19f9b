#include "pipeline/analysis/RegexExtractionProcessor.h"

#include <algorithm>
#include <cstring>

#include "libbundle/PropertyPages.h"
#include "util/Logger.h"

static Logger gLogger("regexExtractionProcessor");

namespace {

const char kRuleKeyPrefix[] = "TRANSFORM";

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Adds the trimmed, non-empty, not yet listed names of a comma-separated
// list.
void addNames(const Str& list, std::vector<Str>& names) {
  size_t pos = 0;
  while (pos <= list.size()) {
    size_t comma = list.find(',', pos);
    if (comma == Str::npos) comma = list.size();
    size_t b = pos, e = comma;
    while (b < e && isBlank(list[b])) ++b;
    while (e > b && isBlank(list[e - 1])) --e;
    if (e > b) {
      Str name = list.substr(b, e - b);
      if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
    }
    pos = comma + 1;
  }
}

}  // namespace

const PluginFactory& RegexExtractionProcessor::factory() {
  static const RegexExtractionProcessorPluginFactory f("regexextractionprocessor");
  return f;
}

void RegexExtractionProcessor::init(const xml::node&, const xml::node&) { gLogger.info("Initializing"); }

void RegexExtractionProcessor::buildRegexList(const Str& path, std::vector<Str>& names) {
  names.clear();
  PropertiesMap merged;
  PropertyPages::propsInstance().fillLayers(merged, path, true);
  const size_t prefixLen = sizeof(kRuleKeyPrefix) - 1;
  // The map is ordered by key bytes, which gives the documented rule order.
  for (const auto& [key, value] : merged) {
    if (key.compare(0, prefixLen, kRuleKeyPrefix) != 0) continue;
    addNames(value, names);
  }
}

void RegexExtractionProcessor::clear() {
  _rulesByPath.clear();
  _extractors.clear();
}

int RegexExtractionProcessor::execute(std::shared_ptr<PipelineData>& record) {
  if (!record || record->contains(PipelineData::doneKey) || record->contains(PipelineData::shutdownKey))
    return eOk;
  if (_rulesByPath.size() > kMaxCachedPaths) clear();
  const Str& path = record->defaultConf(false);
  auto it = _rulesByPath.find(path);
  if (it == _rulesByPath.end()) {
    // The rules of a path are resolved to their extractors once; a name
    // without a usable rule is left out (and was logged when first built).
    std::vector<Str> names;
    buildRegexList(path, names);
    std::vector<RegexExtractor*> rules;
    for (const Str& name : names)
      if (RegexExtractor* e = RegexExtractor::instance(_extractors, name)) rules.push_back(e);
    it = _rulesByPath.emplace(path, std::move(rules)).first;
  }
  for (RegexExtractor* e : it->second) e->extract(*record);
  return eOk;
}
