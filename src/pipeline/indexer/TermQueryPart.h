// TermQueryPart: one search term of a query tree, read from the index in
// blocks. The key is lowercased unless it starts with '+' (searched in its
// exact case; the index gets it without the '+'). Forms of the key:
//   "word"       an exact term (exact)
//   "word*"      a prefix (prefix), at least two characters
//   "*word"      a suffix, and any other use of '*' a wildcard of terms
// The index resolves the star forms itself (TimeInvertedIndex::getValues).
//
// getIds goes on from a QueryHint, so each block costs one index walk from
// where the last one stopped. getCount asks the index for the term's count
// once (exact terms only; -1 otherwise).
//
// Owned by its group; the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/QueryHint.h"
#include "pipeline/indexer/QueryPart.h"

class TermQueryPart : public QueryPart {
 public:
  TermQueryPart(const Str& term, QueryStateMachine* sm);

  void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
              long maxTime) override;
  Str toString() const override { return negationPrefix() + _key; }
  long getCount() override;
  Str getFilterKey() const override { return _key; }
  size_t sizeInBytes() const override;
  void populateKeySet(std::set<Str>& keys) const override { keys.insert(_key); }

  const Str& getKey() const { return _key; }
  bool isLowercase() const { return _lower; }

 private:
  Str _key;
  bool _lower = true;
  std::vector<Str> _terms;  // {_key}, for the index call
  QueryHint _hint;
  long _cachedCount = -2;  // -2: not asked yet
};
