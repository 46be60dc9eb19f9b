// IdListQueryPart: a literal list of events, "idlist::<cd>,<cd>,..." with
// each cd "<bucket id>:<address>" (the event's "_cd" field). The first
// getIds reads the listed events back through the policy to learn their
// times and codes (an id that cannot be read is dropped), keeps those in the
// time range and orders them; later calls hand out the rest.
//
// Owned by its group; the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/QueryPart.h"

class IdListQueryPart : public QueryPart {
 public:
  // token: the whole "idlist::..." token.
  IdListQueryPart(const Str& token, QueryStateMachine* sm);

  // Parses "<cd>,<cd>,..." (blanks around a cd allowed). Ill-formed entries
  // are logged and skipped; a list with no usable entry logs "idList not
  // implemented" at warn. Returns the ids (bucket and address only).
  static std::vector<ValueWrapper> parseString(const Str& list);

  void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
              long maxTime) override;
  // "IDLIST(1:20, 1:21)".
  Str toString() const override;
  long getCount() override { return long(_listed.size()); }
  size_t sizeInBytes() const override;
  void populateKeySet(std::set<Str>&) const override {}

 private:
  std::vector<ValueWrapper> _listed;  // as parsed
  std::vector<ValueWrapper> _ids;     // resolved, in order
  bool _resolved = false;
};
