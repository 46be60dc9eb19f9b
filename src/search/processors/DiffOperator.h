// DiffOperator: makes every event a candidate of its own (the split by
// event). Stateless; one thread at a time.
#pragma once

#include "search/processors/CandidateOperator.h"

class DiffOperator : public CandidateOperator {
 public:
  bool isCompatible(const CandidateEvent& e, const Candidate& c) override {
    (void)e;
    (void)c;
    return false;
  }
};
