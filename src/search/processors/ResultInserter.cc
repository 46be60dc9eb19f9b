#include "search/processors/ResultInserter.h"

#include "search/SearchResults.h"
#include "search/processors/KVTransformer.h"

ResultInserter::ResultInserter(SearchResult* row, bool overwrite, int maxFields)
    : _row(nullptr), _overwrite(overwrite), _max(maxFields) {
  setRow(row);
}

void ResultInserter::setRow(SearchResult* row) {
  _row = row;
  _count = 0;
  if (row && row->getParent() && row->getParent() != _results) bind(*row->getParent());
}

void ResultInserter::bind(SearchResults& results) {
  // Cached indices are trusted only for the same results whose dictionary
  // still gives each name the same index (a free() or removeKey() since
  // may have handed the index to another name).
  const SearchResults::KeyMap& dict = results.getKeyMap();
  for (auto* table : {&_keys, &_sources})
    for (auto it = table->begin(); it != table->end();) {
      bool ok = &results == _results;
      if (ok && it->second.second != 0) {
        auto d = dict.find(it->second.first);
        ok = d != dict.end() && d->second == it->second.second;
      }
      it = ok ? std::next(it) : table->erase(it);
    }
  _results = &results;
}

namespace {
const size_t kMaxKeys = 10000;
const size_t kMaxRenamed = 1000;
}  // namespace

sr_index_t ResultInserter::index(std::string_view key, bool takeLastWord) {
  _scratchKey.assign(1, takeLastWord ? '\1' : '\0');
  _scratchKey.append(key.data(), key.size());
  auto it = _keys.find(std::string_view(_scratchKey));
  if (it != _keys.end()) return it->second.second;
  Str raw(key.data(), key.size());
  Str clean = raw;
  KVTransformer::cleanKey(clean, takeLastWord);
  sr_index_t i = clean.empty() ? 0 : _results->keyIndex(clean, true);
  if (clean != raw && _renamed.size() < kMaxRenamed) _renamed.emplace_back(raw, clean);
  // Text with ever new keys must not grow the table without bound.
  if (_keys.size() >= kMaxKeys) _keys.clear();
  _keys.emplace(_scratchKey, std::make_pair(clean, i));
  return i;
}

int ResultInserter::insert(const StrSegment& key, const StrSegment& value, bool takeLastWord) {
  if (!_row || !_results || full()) return 0;
  sr_index_t i = index(key.view(), takeLastWord);
  if (i == 0) return 0;
  if (!_overwrite && _row->hasValue(i)) return 0;
  _row->setValue(i, value.data() ? value.data() : "", value.size());
  ++_count;
  return 1;
}

const Str* ResultInserter::source(const Str& name) {
  if (!_row || !_results) return nullptr;
  auto it = _sources.find(std::string_view(name));
  sr_index_t i;
  if (it != _sources.end()) {
    i = it->second.second;
  } else {
    i = _results->keyIndex(name);
    if (i == 0) return nullptr;  // not cached: the field may appear later
    _sources.emplace(name, std::make_pair(name, i));
  }
  return _row->getValuePtr(i);
}
