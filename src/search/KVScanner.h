// KVScanner: the automatic key=value scanner of event rows: finds `key=value` and
// `key="quoted value"` pairs in the raw text and adds them to the row as
// fields.
//
// The scanner (extract) is a single left-to-right pass with no allocation:
//   - a key is [A-Za-z_][A-Za-z0-9_.]* standing at a word start (the text's
//     first byte, or after a byte that cannot be part of a key), followed at
//     once by "=";
//   - a value in double quotes runs to the next double quote (the quotes are
//     not part of it, and it may be empty); without a closing quote the pair
//     is not taken;
//   - any other value runs up to a blank, a comma, a semicolon or the end of
//     the text; an empty one, or one starting with another "=", is no pair;
//   - scanning goes on after the value, so a value is never read as a key.
// Every pair is reported, in text order (repeated keys and "_" keys too).
//
// Adding to rows (apply, addFields): the first occurrence of a key wins, a
// field the row already has is never overwritten, and keys starting with
// "_" (the event's own internal fields) are never created. Field names are
// interned once per SearchResults and kept in a small cache, so a row costs
// no dictionary lookup with a temporary string.
//
// One thread uses a transformer (the cache is unguarded).
#pragma once

#include <cstddef>
#include <map>
#include <string_view>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class KVScanner {
 public:
  // Calls cb(StrSegment key, StrSegment value) for every pair of the text.
  template <typename Callback>
  static void extract(const char* text, size_t len, Callback&& cb);
  template <typename Callback>
  static void extract(const Str& raw, Callback&& cb) {
    extract(raw.data(), raw.size(), cb);
  }

  // Adds the pairs of every row's _raw to that row. Returns the number of
  // fields added.
  size_t apply(SearchResults& results) { return apply(results, results.begin()); }
  // The same for the rows from `from` to the end.
  size_t apply(SearchResults& results, SearchResults::iterator from);
  // Adds the pairs of `raw` to `row`, a row of `results`. Returns the number
  // of fields added. REQUIRES: bind(results) since the dictionary last
  // changed other than through this transformer.
  size_t addFields(SearchResults& results, SearchResult& row, const char* raw, size_t len);

  // Checks the cached key indices against the dictionary of `results` and
  // forgets those it no longer has (a free(), removeKey or another
  // SearchResults). Cheap: no allocation. apply() calls it.
  void bind(SearchResults& results);

 private:
  sr_index_t keyIndex(SearchResults& results, std::string_view key);

  const SearchResults* _bound = nullptr;
  std::map<Str, sr_index_t, std::less<>> _keys;
};

// ---------------------------------------------------------------------------

namespace kvscan {
inline bool isKeyStart(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
inline bool isKeyByte(unsigned char c) { return isKeyStart(c) || (c >= '0' && c <= '9') || c == '.'; }
inline bool endsValue(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v' || c == ',' || c == ';';
}
}  // namespace kvscan

template <typename Callback>
void KVScanner::extract(const char* text, size_t len, Callback&& cb) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  size_t i = 0;
  while (i < len) {
    if (!kvscan::isKeyStart(p[i]) || (i > 0 && kvscan::isKeyByte(p[i - 1]))) {
      ++i;
      continue;
    }
    size_t keyStart = i;
    while (i < len && kvscan::isKeyByte(p[i])) ++i;
    if (i >= len || p[i] != '=') continue;
    StrSegment key(text + keyStart, i - keyStart);
    ++i;  // '='
    if (i < len && p[i] == '"') {
      size_t valueStart = i + 1;
      size_t close = valueStart;
      while (close < len && p[close] != '"') ++close;
      if (close >= len) continue;  // unclosed: not a pair; go on inside it
      cb(key, StrSegment(text + valueStart, close - valueStart));
      i = close + 1;
      continue;
    }
    size_t valueStart = i;
    while (i < len && !kvscan::endsValue(p[i])) ++i;
    if (i == valueStart || p[valueStart] == '=') continue;
    cb(key, StrSegment(text + valueStart, i - valueStart));
  }
}
