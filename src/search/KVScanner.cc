#include "search/KVScanner.h"

#include "search/SL.h"

void KVScanner::bind(SearchResults& results) {
  const SearchResults::KeyMap& dict = results.getKeyMap();
  for (auto it = _keys.begin(); it != _keys.end();) {
    auto d = dict.find(it->first);
    if (&results == _bound && d != dict.end() && d->second == it->second)
      ++it;
    else
      it = _keys.erase(it);
  }
  _bound = &results;
}

sr_index_t KVScanner::keyIndex(SearchResults& results, std::string_view key) {
  auto it = _keys.find(key);
  if (it != _keys.end()) return it->second;
  Str name(key.data(), key.size());
  sr_index_t i = results.keyIndex(name, true);
  _keys.emplace(std::move(name), i);
  return i;
}

size_t KVScanner::addFields(SearchResults& results, SearchResult& row, const char* raw, size_t len) {
  size_t added = 0;
  extract(raw, len, [&](const StrSegment& key, const StrSegment& value) {
    if (key.data()[0] == '_') return;
    sr_index_t i = keyIndex(results, std::string_view(key.data(), key.size()));
    if (i == 0 || row.hasValue(i)) return;
    row.setValue(i, value.data(), value.size());
    ++added;
  });
  return added;
}

size_t KVScanner::apply(SearchResults& results, SearchResults::iterator from) {
  bind(results);
  sr_index_t raw = results.keyIndex(SL::Raw);
  if (raw == 0) return 0;
  size_t added = 0;
  for (auto it = from; it != results.end(); ++it) {
    const Str* text = (*it)->getValuePtr(raw);
    if (text) added += addFields(results, **it, text->data(), text->size());
  }
  return added;
}
