// QueryHint: where an earlier query of the same terms stopped, so that the
// next call goes on below the values already handed out instead of counting
// them again from the newest. A query part that reads an index in blocks
// keeps one hint per term (or per group of terms) and passes it back with
// each block.
//
// It holds the time of the last value handed out and the values at exactly
// that time already handed out (values are ordered newest first and, within
// one second, by bucket and address, so the next block starts at that time
// and skips those). A fresh hint starts at the newest value.
//
// A plain value; one thread uses a hint at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "pipeline/indexer/ValueWrapper.h"

struct QueryHint {
  bool started = false;              // false: nothing handed out yet
  bool exhausted = false;            // the last block came back short: nothing is left
  int32_t time = 0;                  // time of the last value handed out
  std::vector<ValueWrapper> atTime;  // values at `time` handed out so far

  // The latest time the next block may hold, given the caller's own end.
  int32_t end(int32_t callerEnd) const { return started && time < callerEnd ? time : callerEnd; }
  // Whether v was handed out before (it lies at `time` and is listed).
  bool seen(const ValueWrapper& v) const;
  // Takes in the block just handed out, newest first, `asked` being how
  // many the caller asked for.
  void advance(const std::vector<ValueWrapper>& block, size_t asked);
};
