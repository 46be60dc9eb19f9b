#include "search/processors/StatsProcessor.h"

#include <cassert>

#include <ctype.h>
#include <stdlib.h>

#include <set>
#include <string_view>

#include "search/SLLimits.h"
#include "search/SearchParser.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/FieldPattern.h"
#include "util/Logger.h"

namespace {

Logger gLogger("stats");

const char kCorrupt[] = "Corrupt information from pre-stats: %s";

Str lower(const Str& s) {
  Str out(s);
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

const Str StatsProcessor::KeyField = "_key";
const Str StatsProcessor::TypeField = "vt";
const Str StatsProcessor::NumField = "num";
const Str StatsProcessor::StrField = "str";

StatsProcessor::StatsProcessor(const Str& n) : SearchProcessor(n), _streaming(n == "prestats") {
  mapHalf = _streaming;
}

StatsLimits StatsProcessor::getLimits(bool reload) {
  static bool loaded = false;
  static StatsLimits limits;
  if (!loaded || reload) {
    StatsLimits l;
    SL::getLimit("stats", "maxvalues", l.maxvalues);
    SL::getLimit("stats", "maxvaluesize", l.maxvaluesize);
    limits = l;
    loaded = true;
  }
  return limits;
}

size_t StatsProcessor::getMaxGroups(bool reload) {
  static size_t cached = 0;
  if (cached == 0 || reload) {
    unsigned long v = 0;
    if (!SL::getLimit("stats", "maxresultrows", v) || v == 0) v = SearchResults::getMaxResultRows(reload);
    cached = v;
  }
  return cached;
}

Str StatsProcessor::getStreamingOp() const {
  Str op = "prestats";
  for (const Str& w : _words) op += " " + SearchParser::quoteWord(w);
  gLogger.debug("Streaming op: '%s'", op.c_str());
  return op;
}

void StatsProcessor::parseSpec(const Str& w) {
  Spec s;
  size_t open = w.find('(');
  if (open == Str::npos) {
    StatsFunc f;
    unsigned p;
    if (!StatsInclOptions::lookupFunc(w, f, p) || f != SF_COUNT)
      throw searchError(this, gLogger, "Invalid aggregation specifier: '%s', must be [func_name]([key])", w.c_str());
    s.funcText = lower(w);
    _specs.push_back(s);
    return;
  }
  if (open == 0 || w.back() != ')' || w.find_first_of("()", open + 1) != w.size() - 1)
    throw searchError(this, gLogger, "Invalid aggregation specifier: '%s', must be [func_name]([key])", w.c_str());
  s.funcText = lower(w.substr(0, open));
  s.field.assign(w.data() + open + 1, w.size() - open - 2);
  if (StatsInclOptions::isArgSet(s.funcText)) {
    s.argSet = true;
  } else if (!StatsInclOptions::lookupFunc(s.funcText, s.func, s.perc)) {
    throw searchError(this, gLogger, "Invalid argument '%s'", w.c_str());
  } else if (s.func == SF_PERC && s.perc == 0) {
    throw searchError(this, gLogger, "Percentile must be integer >= 1 and <= 99");
  }
  if (s.field.empty() && (s.argSet || s.func != SF_COUNT)) s.field = "*";
  if (s.field.find("**") != Str::npos) throw searchError(this, gLogger, "Invalid wildcard field, contains consecutive wildcards!");
  _specs.push_back(s);
}

void StatsProcessor::processArguments() {
  _words.clear();
  for (size_t i = 0; i < args.size(); ++i)
    if (StringArg* a = unconsumedString(i)) {
      _words.push_back(a->getText());
      a->setConsumed();
    }
  size_t i = 0;
  while (i < _words.size()) {
    const Str& w = _words[i];
    if (lower(w) == "by") {
      for (++i; i < _words.size(); ++i)
        if (!_words[i].empty()) _by.push_back(_words[i]);
      if (_by.empty()) throw searchError(this, gLogger, "Must specify at least one field after 'by'");
      break;
    }
    parseSpec(w);
    ++i;
    if (i < _words.size() && lower(_words[i]) == "as") {
      if (++i >= _words.size()) throw searchError(this, gLogger, "Must specify a field name after 'as'");
      Spec& s = _specs.back();
      const Str& r = _words[i++];
      if (s.argSet)
        throw searchError(this, gLogger, "Cannot specify a rename for multi-function specifiers ('all' or 'default')");
      if (r.empty()) throw searchError(this, gLogger, "Invalid rename value");
      if (FieldPattern(r).starCount() != FieldPattern(s.field).starCount())
        throw searchError(this, gLogger,
                          "Number of wildcards does not match between field specifier '%s' and rename specifier "
                          "'%s'.  Note: empty field specifiers implies all fields, e.g. sum() == sum(*)",
                          s.field.c_str(), r.c_str());
      s.rename = r;
    }
  }
  if (_specs.empty()) throw searchError(this, gLogger, "No aggregation functions specified");
  _limits = getLimits();
  _maxGroups = getMaxGroups();
  // Slot 0 is the row count of a group; the fields' slots come on demand.
  _slotField.assign(1, Str());
  _slotOpts.assign(1, StatsInclOptions());
  for (const Spec& s : _specs)
    if (s.field.empty()) _slotOpts[0].include(SF_COUNT, s.rename.empty() ? s.funcText : s.rename);
}

long StatsProcessor::slotFor(const Str& field) {
  auto it = _slotOf.find(field);
  if (it != _slotOf.end()) return it->second;
  StatsInclOptions opts;
  std::vector<Str> caps;
  bool isBy = false;
  for (const Str& b : _by) isBy = isBy || b == field;
  for (const Spec& s : _specs) {
    if (s.field.empty()) continue;
    bool wild = s.field.find('*') != Str::npos;
    if (wild && (isBy || (field.startswith('_') && !s.field.startswith('_')))) continue;
    if (!FieldPattern(s.field).match(field, &caps)) continue;
    if (s.argSet) {
      for (StatsFunc f : StatsInclOptions::processArgSet(s.funcText))
        opts.include(f, Str(StatsInclOptions::funcName(f)) + "(" + field + ")");
      continue;
    }
    Str as;
    if (s.rename.empty()) {
      as = s.funcText + "(" + field + ")";
    } else {
      FieldPattern rename(s.rename);
      if (rename.starCount() > caps.size())
        throw searchError(this, gLogger, "Did not properly fill rename pattern %s", s.rename.c_str());
      as = rename.fill(caps);
    }
    if (s.func == SF_PERC)
      opts.includePerc(s.perc, as);
    else
      opts.include(s.func, as);
  }
  long slot = -1;
  if (opts.any()) {
    slot = static_cast<long>(_slotOpts.size());
    _slotOpts.push_back(opts);
    _slotField.push_back(field);
  }
  _slotOf[field] = slot;
  return slot;
}

size_t StatsProcessor::FlatHash::operator()(const Str& k) const {
  return std::hash<std::string_view>()(std::string_view(k));
}

void StatsProcessor::flatKey(const std::vector<const Str*>& values, Str& out) {
  out.clear();
  for (const Str* v : values) {
    uint32_t n = static_cast<uint32_t>(v->size());
    out.append(reinterpret_cast<const char*>(&n), sizeof n);
    out.append(*v);
  }
}

StatsProcessor::Group* StatsProcessor::findGroup(const std::vector<Str>& key) {
  _valuePtrs.clear();
  for (const Str& k : key) _valuePtrs.push_back(&k);
  return findGroup(_valuePtrs);
}

StatsProcessor::Group* StatsProcessor::findGroup(const std::vector<const Str*>& values) {
  flatKey(values, _flat);
  auto found = _index.find(_flat);
  if (found != _index.end()) return &found->second->second;
  std::vector<Str> key;
  key.reserve(values.size());
  for (const Str* v : values) key.push_back(*v);
  if (_maxGroups != 0 && _groups.size() >= _maxGroups) {
    // Keep the groups first in key order: a later, smaller key pushes out
    // the largest one, which can never come back.
    _groupLimitHit = true;
    auto last = std::prev(_groups.end());
    if (!(key < last->first)) return nullptr;
    std::vector<const Str*> lastValues;
    for (const Str& k : last->first) lastValues.push_back(&k);
    Str lastFlat;
    flatKey(lastValues, lastFlat);
    _index.erase(lastFlat);
    _groups.erase(last);
  }
  auto it = _groups.emplace(std::move(key), Group()).first;
  _index.emplace(_flat, it);
  it->second.keys.emplace_back(_slotOpts[0], _limits);
  return &it->second;
}

StatsKeyInfo& StatsProcessor::keyInfo(Group& g, size_t slot) {
  while (g.keys.size() <= slot) g.keys.emplace_back(_slotOpts[g.keys.size()], _limits);
  return g.keys[slot];
}

bool StatsProcessor::isPreStatResults(const SearchResults& results) {
  return results.keyIndex(KeyField) != SearchResults::nkeyindex;
}

void StatsProcessor::execute_input(SearchResults& results, SearchResultsInfo&) {
  if (isPreStatResults(results))
    readPrestats(results);
  else
    readRows(results);
}

void StatsProcessor::readRows(SearchResults& results) {
  std::vector<sr_index_t> byIdx;
  for (const Str& b : _by) {
    byIdx.push_back(results.keyIndex(b));
    if (byIdx.back() != SearchResults::nkeyindex) _sawBy = true;
  }
  std::vector<std::pair<sr_index_t, size_t>> fields;
  for (auto& kv : results.getKeyMap()) {
    long slot = slotFor(kv.first);
    if (slot > 0) fields.emplace_back(kv.second, static_cast<size_t>(slot));
  }
  sr_index_t timeIdx = results.keyIndex("_time");
  std::vector<const Str*> key(_by.size());
  for (SearchResult* row : results) {
    _sawRows = true;
    bool all = true;
    for (size_t k = 0; k < byIdx.size() && all; ++k) {
      const Str* v = row->getValuePtr(byIdx[k]);
      if (v == nullptr)
        all = false;
      else
        key[k] = v;
    }
    if (!all) continue;
    Group* g = findGroup(key);
    if (g == nullptr) continue;
    g->keys[0].addRow();
    const Str* t = row->getValuePtr(timeIdx);
    for (auto& [idx, slot] : fields) {
      const Str* v = row->getValuePtr(idx);
      if (v == nullptr) continue;
      StatsKeyInfo& ki = keyInfo(*g, slot);
      ki.addValue(*v);
      double d;
      if (t && _slotOpts[slot].needsTime() && StatsKeyInfo::parseNumber(*t, d)) ki.addTime(d);
    }
  }
}

void StatsProcessor::readPrestats(SearchResults& results) {
  sr_index_t keyIdx = results.keyIndex(KeyField), vtIdx = results.keyIndex(TypeField);
  sr_index_t numIdx = results.keyIndex(NumField), strIdx = results.keyIndex(StrField);
  if (vtIdx == SearchResults::nkeyindex || (numIdx == SearchResults::nkeyindex && strIdx == SearchResults::nkeyindex))
    throw searchError(this, gLogger, kCorrupt, "No val or type in entire results");
  std::vector<sr_index_t> byIdx;
  for (const Str& b : _by) byIdx.push_back(results.keyIndex(b));
  _sawBy = true;
  std::vector<const Str*> key(_by.size());
  for (SearchResult* row : results) {
    _sawRows = true;
    const Str* k = row->getValuePtr(keyIdx);
    const Str* vt = row->getValuePtr(vtIdx);
    if (k == nullptr || vt == nullptr) throw searchError(this, gLogger, kCorrupt, "No key or type");
    for (size_t b = 0; b < byIdx.size(); ++b) {
      const Str* v = row->getValuePtr(byIdx[b]);
      if (v == nullptr) throw searchError(this, gLogger, kCorrupt, "groupby key(s) missing");
      key[b] = v;
    }
    long slot = k->empty() ? 0 : slotFor(*k);
    if (slot < 0) continue;
    Group* g = findGroup(key);
    if (g == nullptr) continue;
    switch (keyInfo(*g, static_cast<size_t>(slot)).mergeEntry(*vt, row->getValuePtr(numIdx), row->getValuePtr(strIdx))) {
      case 0:
        break;
      case 1:
        throw searchError(this, gLogger, kCorrupt, "Invalid type");
      case 2:
        throw searchError(this, gLogger, kCorrupt, "Invalid valuetype");
      case 3:
        throw searchError(this, gLogger, kCorrupt, "Invalid non-numerical val");
      default:
        throw searchError(this, gLogger, kCorrupt, "Failed to read group count");
    }
  }
}

void StatsProcessor::writePrestats(SearchResults& results) {
  // A spilled chunk keeps its file bookkeeping (and with it the dictionary).
  results.free(results.hasFiles());
  std::vector<sr_index_t> byIdx;
  for (const Str& b : _by) byIdx.push_back(results.keyIndex(b, true));
  sr_index_t keyIdx = results.keyIndex(KeyField, true), vtIdx = results.keyIndex(TypeField, true);
  sr_index_t numIdx = results.keyIndex(NumField, true), strIdx = results.keyIndex(StrField, true);
  std::vector<StatsKeyInfo::Entry> entries;
  for (auto& [key, g] : _groups)
    for (size_t slot = 0; slot < g.keys.size(); ++slot) {
      const StatsKeyInfo& ki = g.keys[slot];
      if (slot > 0 && ki.count() == 0) continue;
      ki.writePrestats(entries);
      for (const StatsKeyInfo::Entry& e : entries) {
        SearchResult* r = results.addNewResult();
        for (size_t b = 0; b < byIdx.size(); ++b) r->setValue(byIdx[b], key[b]);
        r->setValue(keyIdx, _slotField[slot]);
        r->setValue(vtIdx, Str(e.type));
        if (e.hasNum) r->setValue(numIdx, e.num);
        if (e.hasStr) r->setValue(strIdx, e.str);
      }
    }
}

void StatsProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!_streaming) {
    execute_transform(results, results, info);
    return;
  }
  _groups.clear();
  _index.clear();
  execute_input(results, info);
  if (_by.empty() && _groups.empty()) findGroup(std::vector<Str>());
  writePrestats(results);
  // The reduce side may not see more groups than the limit after this, so
  // the warning is given here, once.
  if (_groupLimitHit && !_warnedLimit) {
    _warnedLimit = true;
    warnGroupLimit(info);
  }
}

bool StatsProcessor::countsOnly() const {
  for (const Spec& s : _specs)
    if (s.func != SF_COUNT || !s.field.empty()) return false;
  return !_specs.empty();
}

void StatsProcessor::executeCounts(const GroupCounts& counts, SearchResults& results, SearchResultsInfo& info) {
  assert(_streaming && countsOnly());
  _groups.clear();
  _index.clear();
  for (const auto& [key, n] : counts) {
    if (key.size() != _by.size()) continue;
    _sawRows = _sawBy = true;
    Group* g = findGroup(key);
    if (g == nullptr) continue;
    g->keys[0].addRows(n);
  }
  if (_by.empty() && _groups.empty()) findGroup(std::vector<Str>());
  writePrestats(results);
  if (_groupLimitHit && !_warnedLimit) {
    _warnedLimit = true;
    warnGroupLimit(info);
  }
}

void StatsProcessor::warnGroupLimit(SearchResultsInfo& info) const {
  info.addWarning(Str::fromFormat(
      "Limit (%lu results) reached.  Some fields may have been ignored.  If necessary, edit limits.conf to adjust "
      "limits.",
      static_cast<unsigned long>(_maxGroups)));
}

void StatsProcessor::execute_output(SearchResults& results, SearchResultsInfo& info) {
  results.free(false);
  if (_by.empty() && _groups.empty()) findGroup(std::vector<Str>());
  std::vector<sr_index_t> byIdx;
  for (const Str& b : _by) byIdx.push_back(results.keyIndex(b, true));
  // Result columns in slot order, so that the column order is stable.
  for (const StatsInclOptions& o : _slotOpts) {
    for (const auto& names : o.names)
      for (const Str& n : names) results.keyIndex(n, true);
    for (auto& p : o.percs)
      for (const Str& n : p.second) results.keyIndex(n, true);
  }
  std::set<Str> limited;
  for (auto& [key, g] : _groups) {
    SearchResult* r = results.addNewResult();
    for (size_t b = 0; b < byIdx.size(); ++b) r->setValue(byIdx[b], key[b]);
    for (size_t slot = 0; slot < _slotOpts.size(); ++slot) {
      if (slot < g.keys.size()) {
        g.keys[slot].writeResult(*r, _slotOpts[slot]);
        if (g.keys[slot].limitReached()) limited.insert(_slotField[slot]);
      } else {
        StatsKeyInfo(_slotOpts[slot], _limits).writeResult(*r, _slotOpts[slot]);
      }
    }
  }
  if (_groupLimitHit) warnGroupLimit(info);
  for (const Str& f : limited)
    info.addWarning(Str::fromFormat(
        "Limit for field '%s' reached.  Some values may have been truncated or ignored.  If necessary, edit "
        "limits.conf to adjust limits.",
        f.c_str()));
  if (_warnMissing && !_by.empty() && _sawRows && !_sawBy)
    info.warnMissingFields(gLogger, std::set<Str>(_by.begin(), _by.end()));
}
