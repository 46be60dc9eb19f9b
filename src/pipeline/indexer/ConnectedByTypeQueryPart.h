// ConnectedByTypeQueryPart: "eventtypeconnected::<term>": the events holding
// the term whose event type recurs among them. It runs once, at its first
// getIds: the term's newest 100 events in the time range are grouped by
// event type (a type code belongs to its bucket); the events of the types
// seen at least "minrelationbytype" times (the machine's setting) make the
// stream, in ValueWrapper order ("Ids out size = %u").
//
// Owned by its group; the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/QueryPart.h"

class ConnectedByTypeQueryPart : public QueryPart {
 public:
  static const size_t kHits = 100;

  ConnectedByTypeQueryPart(const Str& key, QueryStateMachine* sm);

  void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
              long maxTime) override;
  // "CONNECTED(key)".
  Str toString() const override { return negationPrefix() + "CONNECTED(" + _key + ")"; }
  long getCount() override { return -1; }
  Str getFilterKey() const override { return _key; }
  size_t sizeInBytes() const override;
  void populateKeySet(std::set<Str>& keys) const override { keys.insert(_key); }

 private:
  Str _key;
  std::vector<ValueWrapper> _ids;
  bool _requested = false;
};
