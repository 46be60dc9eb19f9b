// Candidate: one transaction under construction, and CandidateEvent, one
// event as the candidate operators see it.
//
// A candidate holds pointers to rows it does not own: the rows stay owned by
// the SearchResults that TransamOperator is grouping, which outlives every
// candidate. `values`/`present` are the unified field values learned so far,
// by position in the UnifiedOperator's field list (empty for the other
// operators). Times are seconds; NaN means "no time" (an event whose _time
// does not parse, or a candidate that has seen no timed event yet).
// Plain data; one thread.
#pragma once

#include <cmath>
#include <vector>

#include "util/Str.h"

class SearchResult;

struct CandidateEvent {
  const SearchResult* row = nullptr;
  double time = NAN;
};

struct Candidate {
  std::vector<Str> values;
  std::vector<bool> present;
  std::vector<CandidateEvent> events;
  double start = NAN;  // time of the first timed event
  double last = NAN;   // time of the latest timed event

  bool hasStart() const { return !std::isnan(start); }
};
