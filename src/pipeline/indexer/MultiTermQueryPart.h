// MultiTermQueryPart: a whole group of plain terms pushed down into one
// index call per block: events holding every and term, at least one or term
// (when there are any) and no not term. The index intersects inside the
// engine, so the group costs one walk instead of one per term. Built by
// QueryPart::optimizeToMultiTermQueryPart.
//
// Owned by its group; the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/QueryHint.h"
#include "pipeline/indexer/QueryPart.h"

class MultiTermQueryPart : public QueryPart {
 public:
  MultiTermQueryPart(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                     const std::vector<Str>& notTerms, QueryStateMachine* sm);

  void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
              long maxTime) override;
  // "MULTI(a, b, OR(c, d), NOT e)".
  Str toString() const override;
  // The smallest and-term count, else the sum of the or-term counts; -1
  // when unknown.
  long getCount() override;
  size_t sizeInBytes() const override;
  void populateKeySet(std::set<Str>& keys) const override;

  const std::vector<Str>& andTerms() const { return _and; }
  const std::vector<Str>& orTerms() const { return _or; }
  const std::vector<Str>& notTerms() const { return _not; }

 private:
  std::vector<Str> _and, _or, _not;
  QueryHint _hint;
  long _cachedCount = -2;
};
