#include "search/processors/MaxSpanOperator.h"

bool MaxSpanOperator::isCompatible(const CandidateEvent& e, const Candidate& c) {
  if (_maxevents > 0 && c.events.size() >= _maxevents) return false;
  if (std::isnan(e.time)) return true;
  if (_maxspan >= 0 && c.hasStart()) {
    double d = e.time - c.start;
    if (d < 0 || d > _maxspan) return false;
  }
  if (_maxpause >= 0 && !std::isnan(c.last)) {
    double d = e.time - c.last;
    if (d < 0 || d > _maxpause) return false;
  }
  return true;
}
