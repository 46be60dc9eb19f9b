#include "search/SearchResultIterator.h"

#include <cassert>

#include "search/SearchResults.h"

SearchResultIterator::SearchResultIterator(const SearchResult& row, bool atEnd) : _row(&row) {
  const SearchResults* parent = row.getParent();
  assert(parent != nullptr && "parent != __null");
  _end = parent->getKeyMap().end();
  _it = atEnd ? _end : parent->getKeyMap().begin();
  moveToValidKey();
}

void SearchResultIterator::moveToValidKey() {
  while (_it != _end) {
    if (const Str* v = _row->getValuePtr(_it->second)) {
      _cur.first.assign(_it->first);
      _cur.second.assign(*v);
      return;
    }
    ++_it;
  }
}

SearchResultIterator& SearchResultIterator::operator++() {
  assert(_it != _end && "key_iter != key_iter_end");
  ++_it;
  moveToValidKey();
  return *this;
}
