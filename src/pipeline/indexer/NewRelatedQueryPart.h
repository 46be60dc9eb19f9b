// NewRelatedQueryPart: "related::w1 w2 ...": events related to a list of
// words, scored by relevance. It runs once, at its first getIds:
//
// Word i of n (at most the machine's related max words) weighs n - i, so
// earlier words count more. Each word fetches its newest 100 events in the
// time range ("Unable to get any results for \"%s\"" when none). The hit
// lists are walked from the shortest up: an event's first sighting scores
// weight / list size; each further sighting adds weight / list size to its
// score and multiplies the sum by the related weight (1 by default, so
// scores add up). Scores are then given as a percentage of the best one
// (the best event scores 100) in the machine's score map, by cd.
//
// The stream itself is every event hit, in ValueWrapper order (so it can be
// intersected like any other part); the root orders the results by score
// when the machine's use-score flag is set.
//
// Owned by its group; the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/QueryPart.h"

class NewRelatedQueryPart : public QueryPart {
 public:
  static const size_t kHitsPerWord = 100;

  NewRelatedQueryPart(const std::vector<Str>& words, QueryStateMachine* sm);

  void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
              long maxTime) override;
  // "RELATED(w1, w2)".
  Str toString() const override;
  long getCount() override { return -1; }
  size_t sizeInBytes() const override;
  void populateKeySet(std::set<Str>& keys) const override { keys.insert(_words.begin(), _words.end()); }

 private:
  void run(long minTime, long maxTime);

  std::vector<Str> _words;
  std::vector<ValueWrapper> _ids;
  bool _requested = false;
};
