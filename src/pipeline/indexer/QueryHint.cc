#include "pipeline/indexer/QueryHint.h"

#include <algorithm>

bool QueryHint::seen(const ValueWrapper& v) const {
  return started && v.time == time && std::find(atTime.begin(), atTime.end(), v) != atTime.end();
}

void QueryHint::advance(const std::vector<ValueWrapper>& block, size_t asked) {
  if (block.size() < asked) exhausted = true;
  if (block.empty()) return;
  const int32_t last = block.back().time;
  if (!started || last != time) atTime.clear();
  started = true;
  time = last;
  for (const ValueWrapper& v : block)
    if (v.time == last) atTime.push_back(v);
}
