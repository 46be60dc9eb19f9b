// ResultInserter: a KVInserter that stores pairs as fields of one row.
//
//  - Keys are cleaned (KVTransformer::cleanKey) and interned the first time
//    they are seen; the raw key -> key index table is kept, so a key seen
//    again costs one lookup without a temporary string. A key that cleans to
//    nothing is refused. Keys that cleaning changed are remembered (old,
//    new; the first 1000) for the log line of the `kv` command. The table
//    is dropped when it reaches 10000 keys, so that text full of ever new
//    keys cannot grow it without bound.
//  - A field the row already has keeps its value unless `overwrite`: the
//    event's own fields (host, source, ...) are never replaced by text
//    that merely looks like them, and the first pair of a key wins.
//  - At most `maxFields` pairs are stored per row (0: no limit); then
//    insert() answers 0 and full() true. setRow() starts the count anew.
//
// The row, its SearchResults and the inserter belong to one thread. The key
// table is tied to one dictionary: bind() drops it when the results (or
// their dictionary) changed. The RegexMatch is scratch for the rules, so
// that matching allocates nothing per row.
#pragma once

#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "search/SearchResult.h"
#include "search/processors/KVInserter.h"
#include "util/RegexMatch.h"
#include "util/Str.h"

class SearchResults;

class ResultInserter : public KVInserter {
 public:
  ResultInserter(SearchResult* row, bool overwrite, int maxFields);

  // Points the inserter at another row and resets the count. The row's
  // parent decides the dictionary (bind() is called when it changed).
  void setRow(SearchResult* row);
  SearchResult* getRow() const { return _row; }
  void setMaxFields(int maxFields) { _max = maxFields; }
  // Checks the key table against the dictionary of `results`.
  void bind(SearchResults& results);

  int insert(const StrSegment& key, const StrSegment& value, bool takeLastWord) override;
  bool full() const override { return _max > 0 && _count >= _max; }
  int inserted() const { return _count; }

  // The text of the field `name` of the current row, or null. Field
  // indices are cached like keys.
  const Str* source(const Str& name);

  // (old, new) names that cleaning changed, in the order first seen.
  const std::vector<std::pair<Str, Str>>& renamed() const { return _renamed; }
  RegexMatch& scratch() { return _match; }

 private:
  sr_index_t index(std::string_view key, bool takeLastWord);

  SearchResult* _row;
  SearchResults* _results = nullptr;
  bool _overwrite;
  int _max;
  int _count = 0;
  // Raw key (led by "\1" when takeLastWord, else "\0") -> (cleaned name,
  // index); index 0: refused.
  std::map<Str, std::pair<Str, sr_index_t>, std::less<>> _keys;
  std::map<Str, std::pair<Str, sr_index_t>, std::less<>> _sources;
  std::vector<std::pair<Str, Str>> _renamed;
  Str _scratchKey;
  RegexMatch _match;
};
