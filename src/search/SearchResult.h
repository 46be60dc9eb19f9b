// SearchResult: one row of a result set.
//
// A row is a vector of owned Str pointers indexed by key index - 1; a null
// pointer means the row has no such field, which differs from an empty value.
// Key indices come from the parent SearchResults, whose dictionary every row
// shares. The row owns its strings; copies deep-copy them. `_size` is the
// count of usable slots and is what lookups test against.
// A row belongs to the thread that owns its SearchResults; no locking.
#pragma once

#include <cstddef>
#include <vector>

#include "util/Str.h"

typedef size_t sr_index_t;

class SearchResults;

class SearchResult {
 public:
  SearchResult() = default;
  explicit SearchResult(SearchResults* parent, sr_index_t reserve = 0);
  // Deep copy of the values; the copy has the same parent.
  SearchResult(const SearchResult& other);
  SearchResult& operator=(const SearchResult& other);
  virtual ~SearchResult();

  SearchResults* getParent() const { return _parent; }
  void setParent(SearchResults* parent) { _parent = parent; }
  // Count of usable slots (highest index a value could be stored at).
  sr_index_t size() const { return _size; }
  // Makes sure slots 1..n exist.
  void reserve(sr_index_t n);

  // --- reading -------------------------------------------------------------
  // The value or null when absent; the fastest lookup.
  const Str* getValuePtr(sr_index_t i) const {
    return (i != 0 && i <= _size) ? _vals[i - 1] : nullptr;
  }
  bool hasValue(sr_index_t i) const { return getValuePtr(i) != nullptr; }
  // A shared empty Str when absent (also for index 0); never fails.
  const Str& getValue(sr_index_t i) const;
  // False and an emptied `out` when absent.
  bool getValue(sr_index_t i, Str& out) const;
  // By name through the parent; false without parent or field.
  bool getValue(const Str& key, Str& out) const;
  // Throws SearchResultsException "Invalid index into SearchResult!" for
  // index 0 or an absent field.
  const Str& operator[](sr_index_t i) const;
  // Creates the slot and an empty value as needed; index 0 throws.
  Str& operator[](sr_index_t i);
  // True only if every index had a value; `out` gets one entry per index
  // (empty for absent ones).
  bool getValueVec(const std::vector<sr_index_t>& inds, std::vector<Str>& out) const;

  // --- writing -------------------------------------------------------------
  // False for index 0; otherwise grows the slots and stores a copy.
  bool setValue(sr_index_t i, const Str& value);
  bool setValue(sr_index_t i, const char* p, size_t len);
  // Interns `key` in the parent. REQUIRES: a parent.
  bool setValue(const Str& key, const Str& value);
  // Takes ownership of `value` (may be null: removes). REQUIRES: i != 0.
  void assign(sr_index_t i, Str* value);
  // Stores values[k] at inds[k]; index 0 entries are skipped.
  void setValueVec(const std::vector<sr_index_t>& inds, const std::vector<Str>& values);
  void removeValue(sr_index_t i);
  // Removes every value; keeps slots and parent.
  void clear();
  // Removes every value and releases the slots.
  void free();
  // Takes the other's values (replacing ours) and leaves it empty.
  void usurp(SearchResult& other);
  // Deep-copies the other's values by position (same dictionary assumed).
  void copyVals(const SearchResult& other);

  // --- multi-value fields (see SearchResults) ------------------------------
  // The elements of field i: the decoded companion field if present, else the
  // plain value split by the field's tokenizer (or as one element). False if
  // the field has no value at all. REQUIRES: a parent.
  bool getMultiValues(sr_index_t i, std::vector<Str>& out) const;
  // Encodes into the companion field; false if the field has none.
  bool setMultiValues(sr_index_t i, const std::vector<Str>& values);
  // getMultiValues for each index; true only if all had values.
  bool getMultiValueVecs(const std::vector<sr_index_t>& inds, std::vector<std::vector<Str>>& out) const;

  // h = h * 5 + (signed char)c over every byte of every present value.
  size_t hash() const;

  // Parses one CSV data line (without its line break) into this row, column k
  // going to inds[k] (0: parsed and ignored). False if the line is malformed
  // or has another number of cells than columns; the row may then hold part
  // of the line's values.
  bool parseCSVLine(const Str& line, const std::vector<sr_index_t>& inds) {
    return parseCSVLine(line.data(), line.size(), inds);
  }
  bool parseCSVLine(const char* p, size_t len, const std::vector<sr_index_t>& inds);

  // Raw slots (index - 1), for bulk walkers such as the CSV writer.
  const std::vector<Str*>& vals() const { return _vals; }

 private:
  // Stores into slot i, reusing an existing Str object when there is one.
  Str& slot(sr_index_t i);

  std::vector<Str*> _vals;
  SearchResults* _parent = nullptr;
  sr_index_t _size = 0;
};
