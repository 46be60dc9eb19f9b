#include "search/processors/KVTransformer.h"

#include <cctype>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "search/KVScanner.h"
#include "search/SL.h"
#include "search/SLLimits.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/KVParser.h"
#include "search/processors/KVRegex.h"
#include "search/processors/MultiKVTransformer.h"
#include "search/processors/ResultInserter.h"
#include "util/Logger.h"
#include "util/Mutex.h"

namespace {
Logger gLogger("KVTransformer");

const char kCmdDelimName[] = "cmd_delim_kv";
const char kAutoMkvName[] = "__auto_mkv__";

Mutex& cacheMutex() {
  static Mutex m;
  return m;
}
std::map<Str, KVTransformer::RuleListPtr>& cache() {
  static std::map<Str, KVTransformer::RuleListPtr> c;
  return c;
}

bool isTrimChar(unsigned char c) { return isspace(c) || c == '"' || c == '\''; }
bool isLetters(const Str& s, size_t from) {
  if (from >= s.size()) return false;
  for (size_t i = from; i < s.size(); ++i)
    if (!isalpha(static_cast<unsigned char>(s[i]))) return false;
  return true;
}
}  // namespace

const Str& KVTransformer::Rule::sourceKey() const { return regex ? regex->getSourceKey() : parser->getSourceKey(); }

int KVTransformer::Rule::matchAndInsert(const StrSegment& text, ResultInserter& ins) const {
  return regex ? regex->matchAndInsert(text, ins) : parser->matchAndInsert(text, ins);
}

KVTransformer::KVTransformer(const Str& name) : SearchProcessor(name) {}
KVTransformer::~KVTransformer() = default;

// 1. An empty key stays empty. With takeLastWord, a key that does not end in
//    white space keeps only the text after its last white space.
// 2. The trim characters (white space and quote marks) go from both ends.
// 3. With takeLastWord, the last word is found once more from the end; what
//    stands before it is dropped if the word is made of letters.
// 4. Every byte that is not a letter or digit becomes "_".
// 5. Leading "_" and digits go, so that no name starts with either.
void KVTransformer::cleanKey(Str& key, bool takeLastWord) {
  if (key.empty()) return;
  if (takeLastWord && !isspace(static_cast<unsigned char>(key.back()))) {
    size_t ws = key.size();
    while (ws > 0 && !isspace(static_cast<unsigned char>(key[ws - 1]))) --ws;
    if (ws > 0) key.erase(0, ws);
  }
  size_t b = 0, e = key.size();
  while (b < e && isTrimChar(static_cast<unsigned char>(key[b]))) ++b;
  while (e > b && isTrimChar(static_cast<unsigned char>(key[e - 1]))) --e;
  key = key.substr(b, e - b);
  if (takeLastWord) {
    size_t ws = key.size();
    while (ws > 0 && !isspace(static_cast<unsigned char>(key[ws - 1]))) --ws;
    if (ws > 0 && isLetters(key, ws)) key.erase(0, ws);
  }
  for (char& c : key)
    if (!isalnum(static_cast<unsigned char>(c))) c = '_';
  size_t lead = 0;
  while (lead < key.size() && (key[lead] == '_' || isdigit(static_cast<unsigned char>(key[lead])))) ++lead;
  key.erase(0, lead);
}

int KVTransformer::maxCols() {
  static int cols = [] {
    unsigned long v = 512;
    SL::getLimit("kv", "maxcols", v);
    return v == 0 || v > 1000000 ? 512 : int(v);
  }();
  return cols;
}

void KVTransformer::getConf(const SearchResult& row, sr_index_t source, sr_index_t host, sr_index_t sourceType,
                            Str& out) {
  out.assign("source::");
  if (const Str* v = row.getValuePtr(source)) out += *v;
  out += "|host::";
  if (const Str* v = row.getValuePtr(host)) out += *v;
  out += "|sourcetype::";
  if (const Str* v = row.getValuePtr(sourceType)) out += *v;
}

void KVTransformer::addTransform(const Str& name, RuleList& list) {
  PropertiesMap t;
  PropertyPages::regexInstance().fillLayers(t, name, false);
  Str regex, format, delims, fields, sourceKey;
  t.get("REGEX", regex);
  t.get("FORMAT", format);
  t.get("DELIMS", delims);
  t.get("FIELDS", fields);
  t.get("SOURCE_KEY", sourceKey);
  Rule rule;
  if (!delims.empty() && regex.empty()) {
    auto p = std::make_shared<KVParser>();
    if (!p->init(delims, fields, name)) return;
    if (!sourceKey.empty()) p->setSourceKey(sourceKey);
    rule.parser = p;
  } else {
    auto r = std::make_shared<KVRegex>();
    if (!r->init(regex, format, name)) return;
    if (!sourceKey.empty()) r->setSourceKey(sourceKey);
    rule.regex = r;
  }
  list.rules.push_back(rule);
}

KVTransformer::RuleListPtr KVTransformer::getRules(const Str& conf) {
  ScopedLock lock(cacheMutex());
  auto it = cache().find(conf);
  if (it != cache().end()) return it->second;
  gLogger.debug("building regexlist for conf=%s\n", conf.c_str());
  auto list = std::make_shared<RuleList>();
  PropertiesMap merged;
  PropertyPages::propsInstance().fillLayers(merged, conf, true);
  Str mode;
  if (merged.get("KV_MODE", mode)) {
    Str m = lowercase(StrSegment(mode.trim()));
    if (m == "none") list->mode = MODE_NONE;
    else if (m.startswith("multi")) list->mode = MODE_MULTI;
  }
  if (list->mode != MODE_MULTI) {
    for (const auto& [key, value] : merged) {
      if (!key.startswith("REPORT")) continue;
      size_t b = 0;
      while (b <= value.size()) {
        size_t c = value.find(',', b);
        if (c == Str::npos) c = value.size();
        Str name = Str(value.substr(b, c - b)).trim();
        if (!name.empty()) addTransform(name, *list);
        b = c + 1;
      }
    }
  } else {
    gLogger.debug("conf=%s uses the table extraction %s", conf.c_str(), kAutoMkvName);
  }
  cache()[conf] = list;
  return list;
}

KVTransformer::RuleListPtr KVTransformer::getTransforms(const std::vector<Str>& names) {
  Str key("\ttransforms");
  for (const Str& n : names) key += "\t" + n;
  {
    ScopedLock lock(cacheMutex());
    auto it = cache().find(key);
    if (it != cache().end()) return it->second;
  }
  auto list = std::make_shared<RuleList>();
  for (const Str& n : names) addTransform(n, *list);
  ScopedLock lock(cacheMutex());
  cache()[key] = list;
  return list;
}

void KVTransformer::reload() {
  {
    ScopedLock lock(cacheMutex());
    cache().clear();
  }
  for (const char* name : {"props", "transforms", "multikv"}) PropertyPages::instance(name).updateConfigs();
}

int KVTransformer::applyRules(const RuleList& list, ResultInserter& ins, size_t maxChars, bool autoScan) {
  int added = 0;
  auto clip = [maxChars](const Str* v) {
    return StrSegment(v->data(), maxChars && v->size() > maxChars ? maxChars : v->size());
  };
  for (const Rule& r : list.rules) {
    if (ins.full()) break;
    const Str* text = ins.source(r.sourceKey());
    if (text) added += r.matchAndInsert(clip(text), ins);
  }
  if (autoScan && !ins.full()) {
    if (const Str* raw = ins.source(SL::Raw)) {
      StrSegment t = clip(raw);
      KVScanner::extract(t.data(), t.size(), [&](const StrSegment& k, const StrSegment& v) {
        if (k.data()[0] != '_') added += ins.insert(k, v, false);
      });
    }
  }
  return added;
}

void KVTransformer::processArguments() {
  getOption("limit", _limit);
  getOption("maxchars", _maxChars);
  getOption("reload", _reload);
  getOption("segment", _segment);
  Str kvdelim, pairdelim;
  bool haveKv = getOption("kvdelim", kvdelim), havePair = getOption("pairdelim", pairdelim);
  std::vector<Str> names;
  Str word;
  while (getNextNonOpt(word, true) < args.size()) {
    if (lowercase(StrSegment(word)) == "auto") continue;
    names.push_back(word);
  }
  refuseLeftovers();
  if (_reload) reload();
  if (haveKv || havePair) {
    if ((haveKv && kvdelim.empty()) || (havePair && pairdelim.empty()))
      throw searchError(this, gLogger, "Failed to parse key-value pair config: transform_name='%s'", kCmdDelimName);
    auto p = std::make_shared<KVParser>();
    if (!p->initSets(havePair ? pairdelim : Str(" \t\r\n"), haveKv ? kvdelim : Str("="), kCmdDelimName))
      throw searchError(this, gLogger, "Failed to parse key-value pair config: transform_name='%s'", kCmdDelimName);
    auto list = std::make_shared<RuleList>();
    list->rules.push_back(Rule{nullptr, p});
    _fixed = list;
  } else if (!names.empty()) {
    for (const Str& n : names)
      if (!PropertyPages::regexInstance().propsExist(n)) throw searchError(this, gLogger, "Invalid argument: '%s'", n.c_str());
    _fixed = getTransforms(names);
  }
}

void KVTransformer::execute(SearchResults& results, SearchResultsInfo& info) {
  const sr_index_t kv = results.keyIndex(Str("_kv"), true);
  const sr_index_t source = results.keyIndex(SL::Source), host = results.keyIndex(SL::Host),
                   sourceType = results.keyIndex(SL::SourceType);
  int limit = int(_limit > 1000000 ? 1000000 : _limit);
  if (limit > maxCols()) limit = maxCols();
  ResultInserter ins(nullptr, false, limit);
  ins.bind(results);
  Str conf;
  for (auto it = results.begin(); it != results.end();) {
    SearchResult* row = *it;
    if (row->hasValue(kv)) {
      ++it;
      continue;
    }
    const RuleList* list = _fixed.get();
    if (!list) {
      getConf(*row, source, host, sourceType, conf);
      auto found = _local.find(conf);
      if (found == _local.end()) found = _local.emplace(conf, getRules(conf)).first;
      list = found->second.get();
    }
    if (list->mode == MODE_NONE) {
      ++it;
      continue;
    }
    if (list->mode == MODE_MULTI) {
      if (!_mkv) _mkv = std::make_unique<MultiKVTransformer>(Str(kAutoMkvName));
      size_t made = _mkv->extract(results, it);
      if (made > 0) {
        // The table rows stand before the original, which they replace.
        auto back = it;
        for (size_t i = 0; i < made; ++i) (*--back)->setValue(kv, Str("1"));
        delete row;
        it = results.erase(it);
        continue;
      }
      row->setValue(kv, Str("1"));
      ++it;
      continue;
    }
    ins.setRow(row);
    applyRules(*list, ins, _maxChars, _fixed == nullptr);
    row->setValue(kv, Str("1"));
    ++it;
  }
  logRenamed(ins, info);
}

void KVTransformer::logRenamed(const ResultInserter& ins, SearchResultsInfo& info) {
  // Each run over a chunk of spilled rows reports only names not yet told.
  std::vector<std::pair<Str, Str>> renamed;
  for (const auto& r : ins.renamed())
    if (_reported.insert(r.first).second) renamed.push_back(r);
  if (renamed.empty()) return;
  const size_t shown = renamed.size() < 10 ? renamed.size() : 10;
  Str line;
  line.appendFormat("%lu", (unsigned long)renamed.size());
  line += " field name";
  line += renamed.size() == 1 ? " was" : "s were";
  line += " modified. The first ";
  line.appendFormat("%lu", (unsigned long)shown);
  line += shown == 1 ? " is" : " are";
  line += " (format 'old'='new'):";
  for (size_t i = 0; i < shown; ++i) line += " '" + renamed[i].first + "'='" + renamed[i].second + "'";
  line += "....";
  gLogger.info("%s", line.c_str());
  info.addInfo(line);
}
