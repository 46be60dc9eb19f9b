// Dictionary, row management, limits and multi-value fields of
// SearchResults. CSV lives in SearchResultsCsv.cc, spill files in
// SearchResultsFiles.cc.
#include "search/SearchResults.h"

#include <algorithm>
#include <cassert>
#include <unordered_map>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "search/LineReader.h"
#include "util/Logger.h"
#include "util/RE.h"

namespace {
Logger gLog("SearchResults");
const char kMvPrefix[] = "__mv_";
}  // namespace

SearchResults::SearchResults() = default;

SearchResults::SearchResults(const SearchResults& other) : std::list<SearchResult*>() { copyFrom(other, true); }

SearchResults::SearchResults(const SearchResults& other, bool copyRows) : std::list<SearchResult*>() {
  copyFrom(other, copyRows);
}

SearchResults& SearchResults::operator=(const SearchResults& other) {
  if (this != &other) {
    free(false);
    copyFrom(other, true);
  }
  return *this;
}

SearchResults::~SearchResults() {
  if (_headerFile.isValid() || _headerReader) {
    gLog.warn("CSV File still open at SearchResults destructor.");
    closeFile();
  }
  deleteRows();
  for (const RE* re : _tokenizers) delete re;
  removeTempDirs();
}

void SearchResults::removeTempDirs() {
  for (const Pathname& dir : _tempDirs) {
    if (dir.isDir()) {
      if (!dir.removeRecursive()) gLog.error("Failed to remove temporary directory: %s", dir.c_str());
    } else {
      gLog.debug("in _removeDirs(), not a temporary directory: %s", dir.c_str());
    }
  }
  _tempDirs.clear();
}

void SearchResults::copyFrom(const SearchResults& other, bool copyRows) {
  copyKeyMap(other);
  if (!copyRows) return;
  for (const SearchResult* r : other) {
    SearchResult* n = new SearchResult(*r);
    n->setParent(this);
    push_back(n);
  }
}

void SearchResults::deleteRows() {
  for (SearchResult* r : *this) delete r;
  std::list<SearchResult*>::clear();
}

// --- dictionary ------------------------------------------------------------

sr_index_t SearchResults::keyIndex(const Str& key, bool create) {
  assert(!isInternalField(key) || !create);
  auto it = _keyMap.find(key);
  if (it != _keyMap.end()) return it->second;
  if (!create || key.empty()) return nkeyindex;
  sr_index_t i = ++_maxKeyIndex;
  _keyMap.emplace(key, i);
  return i;
}

sr_index_t SearchResults::keyIndex(const Str& key) const {
  auto it = _keyMap.find(key);
  return it == _keyMap.end() ? nkeyindex : it->second;
}

sr_index_t SearchResults::internalKeyIndex(const Str& key, bool create) {
  assert(isInternalField(key) && "isInternalField(key)");
  auto it = _internalKeyMap.find(key);
  if (it != _internalKeyMap.end()) return it->second;
  if (!create) return nkeyindex;
  sr_index_t i = ++_maxKeyIndex;
  _internalKeyMap.emplace(key, i);
  return i;
}

bool SearchResults::keyIndexes(const std::vector<Str>& keys, std::vector<sr_index_t>& out) const {
  out.assign(keys.size(), nkeyindex);
  bool all = true;
  for (size_t k = 0; k < keys.size(); ++k) {
    out[k] = keyIndex(keys[k]);
    if (out[k] == nkeyindex) all = false;
  }
  return all;
}

Str SearchResults::getKeyFromIndex(sr_index_t i) const {
  if (i == nkeyindex) return Str();
  for (const auto& kv : _keyMap)
    if (kv.second == i) return kv.first;
  return Str();
}

bool SearchResults::removeKey(const Str& key) {
  bool any = isInternalField(key) ? _internalKeyMap.erase(key) > 0 : _keyMap.erase(key) > 0;
  any = _internalKeyMap.erase(kMvPrefix + key) > 0 || any;
  return any;
}

sr_index_t SearchResults::renameKey(const Str& from, const Str& to) {
  KeyMap& fromMap = isInternalField(from) ? _internalKeyMap : _keyMap;
  auto it = fromMap.find(from);
  if (it == fromMap.end()) return 0;
  const sr_index_t i = it->second;
  if (from == to) return i;
  if (to.empty()) return 0;
  fromMap.erase(it);
  KeyMap& toMap = isInternalField(to) ? _internalKeyMap : _keyMap;
  toMap[to] = i;
  // The multi-value companion follows its field.
  auto mv = _internalKeyMap.find(kMvPrefix + from);
  if (mv != _internalKeyMap.end()) {
    sr_index_t m = mv->second;
    _internalKeyMap.erase(mv);
    _internalKeyMap[kMvPrefix + to] = m;
  } else {
    _internalKeyMap.erase(kMvPrefix + to);
  }
  return i;
}

void SearchResults::appendKeyMap(const SearchResults& other) {
  std::vector<const Str*> byIndex(other._maxKeyIndex + 1, nullptr);
  for (const auto& kv : other._keyMap) byIndex[kv.second] = &kv.first;
  for (const Str* k : byIndex)
    if (k) keyIndex(*k, true);
  std::fill(byIndex.begin(), byIndex.end(), nullptr);
  for (const auto& kv : other._internalKeyMap) byIndex[kv.second] = &kv.first;
  for (const Str* k : byIndex)
    if (k) internalKeyIndex(*k, true);
}

void SearchResults::copyKeyMap(const SearchResults& other) {
  if (this == &other) return;
  _keyMap = other._keyMap;
  _internalKeyMap = other._internalKeyMap;
  _maxKeyIndex = other._maxKeyIndex;
  for (const RE* re : _tokenizers) delete re;
  _tokenizers.clear();
  _tokenizerLooked.clear();
  _mvIndex.clear();
}

bool SearchResults::sameKeyMap(const SearchResults& other) const {
  return _maxKeyIndex == other._maxKeyIndex && _keyMap == other._keyMap &&
         _internalKeyMap == other._internalKeyMap;
}

void SearchResults::getColumnOrder(std::vector<Str>& out) const {
  std::vector<std::pair<sr_index_t, const Str*>> v;
  v.reserve(_keyMap.size());
  for (const auto& kv : _keyMap) {
    assert(kv.second != nkeyindex && "it->second != nkeyindex");
    v.emplace_back(kv.second, &kv.first);
  }
  std::sort(v.begin(), v.end());
  out.clear();
  out.reserve(v.size());
  for (const auto& p : v) out.push_back(*p.second);
}

void SearchResults::genFieldList(std::vector<Str>& fieldList, std::vector<sr_index_t>& keyIndList,
                                 bool onlyListed, bool withInternal) const {
  keyIndList.clear();
  std::vector<bool> used(_maxKeyIndex + 1, false);
  for (const Str& f : fieldList) {
    sr_index_t i = keyIndex(f);
    keyIndList.push_back(i);
    if (i) used[i] = true;
  }
  if (onlyListed && !fieldList.empty()) return;
  std::vector<std::pair<const Str*, sr_index_t>> rest;
  for (const auto& kv : _keyMap)
    if (!used[kv.second]) rest.emplace_back(&kv.first, kv.second);
  if (withInternal)
    for (const auto& kv : _internalKeyMap)
      if (!used[kv.second]) rest.emplace_back(&kv.first, kv.second);
  std::sort(rest.begin(), rest.end(), [](const auto& a, const auto& b) {
    int c = a.first->compare(*b.first);
    return c != 0 ? c < 0 : a.second < b.second;
  });
  for (const auto& p : rest) {
    if (used[p.second]) continue;
    used[p.second] = true;
    fieldList.push_back(*p.first);
    keyIndList.push_back(p.second);
  }
}

// --- rows ------------------------------------------------------------------

SearchResult* SearchResults::addNewResult(const SearchResult* proto, sr_index_t reserveSlots) {
  return addNewResult(end(), proto, reserveSlots);
}

SearchResult* SearchResults::addNewResult(iterator pos, const SearchResult* proto, sr_index_t reserveSlots) {
  SearchResult* r = new SearchResult(this, reserveSlots ? reserveSlots : _maxKeyIndex);
  if (proto) {
    const SearchResults* pp = proto->getParent();
    if (pp == this || (pp && sameKeyMap(*pp)))
      r->copyVals(*proto);
    else
      copyResult(*proto, *r);
  }
  insert(pos, r);
  return r;
}

void SearchResults::copyResult(const SearchResult& from, SearchResult& to) {
  const SearchResults* fp = from.getParent();
  if (!fp) return;
  for (const auto& kv : fp->_keyMap)
    if (const Str* v = from.getValuePtr(kv.second)) to.setValue(keyIndex(kv.first, true), *v);
  for (const auto& kv : fp->_internalKeyMap)
    if (const Str* v = from.getValuePtr(kv.second)) to.setValue(internalKeyIndex(kv.first, true), *v);
}

void SearchResults::usurpResult(SearchResult& from, SearchResult& to) {
  const SearchResults* fp = from.getParent();
  if (fp == this || (fp && sameKeyMap(*fp)) || !fp) {
    to.usurp(from);
    return;
  }
  to.clear();
  auto take = [&](sr_index_t src, sr_index_t dst) {
    if (src == 0 || src > from.size() || !from.vals()[src - 1]) return;
    Str* v = new Str(std::move(*from.vals()[src - 1]));
    to.assign(dst, v);
  };
  for (const auto& kv : fp->_keyMap) take(kv.second, keyIndex(kv.first, true));
  for (const auto& kv : fp->_internalKeyMap) take(kv.second, internalKeyIndex(kv.first, true));
  from.free();
}

SearchResult* SearchResults::moveResult(iterator old, bool erase) {
  SearchResult* src = *old;
  SearchResults* owner = src->getParent();
  assert(owner != nullptr && "(*old)->getParent() != __null");
  SearchResult* r = new SearchResult(this, _maxKeyIndex);
  usurpResult(*src, *r);
  push_back(r);
  if (erase && owner != this) {
    owner->erase(old);
    delete src;
  }
  return r;
}

void SearchResults::append(const SearchResults& other, size_t start, size_t count) {
  auto it = other.begin();
  for (size_t k = 0; k < start && it != other.end(); ++k) ++it;
  if (sameKeyMap(other)) {
    for (size_t n = 0; it != other.end() && (count == 0 || n < count); ++it, ++n) {
      SearchResult* r = new SearchResult(this, _maxKeyIndex);
      r->copyVals(**it);
      push_back(r);
    }
    return;
  }
  // Translation table built once: (index there, index here).
  std::vector<std::pair<sr_index_t, sr_index_t>> map;
  for (const auto& kv : other._keyMap) map.emplace_back(kv.second, keyIndex(kv.first, true));
  for (const auto& kv : other._internalKeyMap) map.emplace_back(kv.second, internalKeyIndex(kv.first, true));
  for (size_t n = 0; it != other.end() && (count == 0 || n < count); ++it, ++n) {
    SearchResult* r = new SearchResult(this, _maxKeyIndex);
    for (const auto& p : map)
      if (const Str* v = (*it)->getValuePtr(p.first)) r->setValue(p.second, *v);
    push_back(r);
  }
}

void SearchResults::takeRows(SearchResults& other) {
  if (&other == this) return;
  if (sameKeyMap(other)) {
    for (SearchResult* src : other) {
      SearchResult* r = new SearchResult(this, _maxKeyIndex);
      r->usurp(*src);
      push_back(r);
    }
  } else {
    std::vector<std::pair<sr_index_t, sr_index_t>> map;
    for (const auto& kv : other._keyMap) map.emplace_back(kv.second, keyIndex(kv.first, true));
    for (const auto& kv : other._internalKeyMap) map.emplace_back(kv.second, internalKeyIndex(kv.first, true));
    for (SearchResult* src : other) {
      SearchResult* r = new SearchResult(this, _maxKeyIndex);
      const std::vector<Str*>& vals = src->vals();
      for (const auto& p : map)
        if (p.first <= vals.size() && vals[p.first - 1]) r->assign(p.second, new Str(std::move(*vals[p.first - 1])));
      push_back(r);
    }
  }
  other.deleteRows();
}

void SearchResults::free(bool keepKeys) {
  deleteRows();
  if (keepKeys) return;
  dropSchema();
  dropFileBookkeeping();
}

void SearchResults::dropSchema() {
  _keyMap.clear();
  _internalKeyMap.clear();
  _maxKeyIndex = 0;
  for (const RE* re : _tokenizers) delete re;
  _tokenizers.clear();
  _tokenizerLooked.clear();
  _mvIndex.clear();
}

void SearchResults::dropFileBookkeeping() {
  _files.clear();
  _fileCursor = 0;
  _currentDeleted = false;
  _atFirstFile = true;
}

void SearchResults::usurp(SearchResults& other, bool rowsOnly) {
  if (this == &other) return;
  // With rowsOnly our spill files stay ours: only rows and caches move.
  deleteRows();
  dropSchema();
  std::list<SearchResult*>::swap(other);
  for (SearchResult* r : *this) r->setParent(this);
  _keyMap.swap(other._keyMap);
  _internalKeyMap.swap(other._internalKeyMap);
  std::swap(_maxKeyIndex, other._maxKeyIndex);
  _tokenizers.swap(other._tokenizers);
  _tokenizerLooked.swap(other._tokenizerLooked);
  _mvIndex.swap(other._mvIndex);
  if (!rowsOnly) {
    dropFileBookkeeping();
    _files.swap(other._files);
    std::swap(_fileCursor, other._fileCursor);
    std::swap(_currentDeleted, other._currentDeleted);
    std::swap(_atFirstFile, other._atFirstFile);
    _tempDirs.swap(other._tempDirs);
  }
}

// --- limits ----------------------------------------------------------------

namespace {
size_t readSearchResultsLimit(const char* key, size_t def) {
  std::unique_ptr<PropertiesMap> m = PropertyPages::instance("limits").get("searchresults");
  unsigned long v = 0;
  if (m && PropertyPages::layeredFind(key, *m, v) && v != 0) return v;
  return def;
}
}  // namespace

size_t SearchResults::getMaxResultRows(bool reload) {
  static size_t cached = 0;
  if (cached == 0 || reload) cached = readSearchResultsLimit("maxresultrows", 50000);
  return cached;
}

size_t searchResultsLimit(const char* key, size_t def) { return readSearchResultsLimit(key, def); }

// --- multi-value fields ----------------------------------------------------

namespace {
std::unordered_map<std::string, bool>& mvCache() {
  static std::unordered_map<std::string, bool> cache;
  return cache;
}

bool lookupTokenizer(const Str& name, Str& pattern) {
  std::unique_ptr<PropertiesMap> m = PropertyPages::instance("fields").get(name);
  if (!m) return false;
  const char* t = m->get("TOKENIZER");
  if (!t || !*t) return false;
  pattern = t;
  return true;
}
}  // namespace

bool SearchResults::isMultiValue(const Str& name, bool reload) {
  auto& cache = mvCache();
  if (reload) cache.clear();
  auto it = cache.find(name);
  if (it != cache.end()) return it->second;
  Str pattern;
  bool mv = lookupTokenizer(name, pattern);
  cache.emplace(name, mv);
  return mv;
}

bool SearchResults::hasMultiValue(const Str& name) {
  return _internalKeyMap.count(kMvPrefix + name) > 0 || isMultiValue(name);
}

const RE* SearchResults::getTokenizerFromIndex(sr_index_t i) {
  if (i == 0 || i > _maxKeyIndex) return nullptr;
  if (_tokenizerLooked.size() < _maxKeyIndex) {
    _tokenizerLooked.resize(_maxKeyIndex, false);
    _tokenizers.resize(_maxKeyIndex, nullptr);
  }
  if (!_tokenizerLooked[i - 1]) {
    _tokenizerLooked[i - 1] = true;
    Str name = getKeyFromIndex(i);
    Str pattern;
    if (!name.empty() && isMultiValue(name) && lookupTokenizer(name, pattern)) {
      RE* re = new RE(pattern);
      if (re->error().empty()) {
        _tokenizers[i - 1] = re;
      } else {
        gLog.warn("Invalid TOKENIZER for field '%s': %s", name.c_str(), re->error().c_str());
        delete re;
      }
    }
  }
  return _tokenizers[i - 1];
}

sr_index_t SearchResults::getMVIndex(sr_index_t i) {
  if (i == 0 || i > _maxKeyIndex) return 0;
  if (_mvIndex.size() < i) _mvIndex.resize(_maxKeyIndex, 0);
  if (_mvIndex[i - 1]) return _mvIndex[i - 1];
  Str name = getKeyFromIndex(i);
  if (name.empty()) return 0;
  Str mvName = kMvPrefix + name;
  sr_index_t mv = internalKeyIndex(mvName, false);
  if (!mv && getTokenizerFromIndex(i)) mv = internalKeyIndex(mvName, true);
  if (mv) {
    if (_mvIndex.size() < i) _mvIndex.resize(i, 0);
    _mvIndex[i - 1] = mv;
  }
  return mv;
}

void SearchResults::encodeMV(const std::vector<Str>& values, Str& out) {
  size_t total = 0;
  for (const Str& v : values) total += v.size();
  out.reserve(out.size() + 3 * values.size() + 2 * total);
  bool first = true;
  for (const Str& v : values) {
    if (!first) out.push_back(';');
    first = false;
    out.push_back('$');
    for (char c : v) {
      out.push_back(c);
      if (c == '$') out.push_back('$');
    }
    out.push_back('$');
  }
}

bool SearchResults::decodeMV(const Str& enc, std::vector<Str>& out) {
  out.clear();
  const size_t n = enc.size();
  size_t i = 0;
  while (i < n) {
    char c = enc[i];
    if (c == ';') {
      ++i;
      continue;
    }
    if (c != '$') {
      out.clear();
      return false;
    }
    ++i;
    Str elem;
    bool closed = false;
    while (i < n) {
      if (enc[i] == '$') {
        if (i + 1 < n && enc[i + 1] == '$') {
          elem.push_back('$');
          i += 2;
          continue;
        }
        ++i;
        closed = true;
        break;
      }
      elem.push_back(enc[i++]);
    }
    if (!closed) {
      out.clear();
      return false;
    }
    out.push_back(std::move(elem));
  }
  return true;
}
