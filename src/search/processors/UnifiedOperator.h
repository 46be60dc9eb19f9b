// UnifiedOperator: groups events by the values of a list of fields
// (`fields=`).
//
// An event is compatible with a group when they agree on every field both
// have; a field the event lacks (or has empty) agrees with anything, and so
// does a field the group has not seen yet. When the event agrees with
// several groups it joins the closest one, the group that took an event
// most recently; when it agrees with none it starts a group. Joining adds
// the event's values to the group's.
//
// Linear: groups that know every field sit in a hash by their values, so
// an event with every field finds its group in one lookup. For events that
// lack some fields, every proper subset of the fields indexes the most
// recently touched complete group by its values on that subset (2^k - 2
// entries per touch, k the number of fields; above kMaxIndexedFields only
// the scan below runs). Groups still missing some fields are few (they
// exist only until an event with their missing fields arrives) and are
// scanned from the most recently touched.
//
// Holds its scratch state only during processCandidate. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchResult.h"
#include "search/processors/CandidateOperator.h"

class UnifiedOperator : public CandidateOperator {
 public:
  static const size_t kMaxIndexedFields = 8;

  // `keys`: the key indices of the fields (0: a field no row has).
  explicit UnifiedOperator(const std::vector<sr_index_t>& keys) : _keys(keys) {}

  void processCandidate(const Candidate& in, std::vector<Candidate>& out) override;
  bool isCompatible(const CandidateEvent& e, const Candidate& c) override;
  // Appends the event and learns its field values.
  void updateCandidate(const CandidateEvent& e, Candidate& c) override;

 private:
  std::vector<sr_index_t> _keys;
};
