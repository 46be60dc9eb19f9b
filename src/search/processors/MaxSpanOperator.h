// MaxSpanOperator: cuts a time-ordered candidate by span, pause and size.
//
// An event may join a piece when
//   - maxspan is set: its time minus the piece's first time is at most maxspan;
//   - maxpause is set: its time minus the piece's latest time is at most
//     maxpause (the gap between consecutive events);
//   - maxevents is set: the piece has fewer than maxevents events.
// An event without a time passes the two time tests (it joins the current
// piece); a piece with no timed event yet has nothing to measure from.
// A limit below 0 (spans) or of 0 (maxevents) is no limit.
// Immutable after construction; one thread at a time.
#pragma once

#include "search/processors/CandidateOperator.h"

class MaxSpanOperator : public CandidateOperator {
 public:
  MaxSpanOperator(double maxspan, double maxpause, unsigned long maxevents)
      : _maxspan(maxspan), _maxpause(maxpause), _maxevents(maxevents) {}

  bool isCompatible(const CandidateEvent& e, const Candidate& c) override;

 private:
  double _maxspan;
  double _maxpause;
  unsigned long _maxevents;
};
