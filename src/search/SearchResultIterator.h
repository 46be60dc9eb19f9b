// SearchResultIterator: walks the public fields of one row in name order,
// skipping names the row has no value for. Internal ("__") names are never
// visited. The row and its parent must outlive the iterator and keep their
// dictionary unchanged meanwhile. One thread at a time.
#pragma once

#include <map>
#include <utility>

#include "search/SearchResult.h"
#include "util/Str.h"

typedef Str rs_key;
typedef Str rs_val;

class SearchResultIterator {
 public:
  // REQUIRES: row has a parent. `atEnd` true makes the end iterator.
  SearchResultIterator(const SearchResult& row, bool atEnd = false);

  const std::pair<rs_key, rs_val>& operator*() const { return _cur; }
  const std::pair<rs_key, rs_val>* operator->() const { return &_cur; }
  // REQUIRES: not at the end.
  SearchResultIterator& operator++();
  sr_index_t keyIndex() const { return _it->second; }
  bool atEnd() const { return _it == _end; }
  bool operator==(const SearchResultIterator& o) const { return _it == o._it; }
  bool operator!=(const SearchResultIterator& o) const { return _it != o._it; }

 private:
  void moveToValidKey();

  const SearchResult* _row;
  std::map<Str, sr_index_t>::const_iterator _it;
  std::map<Str, sr_index_t>::const_iterator _end;
  std::pair<rs_key, rs_val> _cur;
};
