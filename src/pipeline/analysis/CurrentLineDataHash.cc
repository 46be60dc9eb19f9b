#include "pipeline/analysis/CurrentLineDataHash.h"

CurrentLineData& CurrentLineDataHash::findOrAddCurrentLineData(std::string_view prev, std::string_view shape) {
  CurrentLineData& d = _table.findOrAdd(prev);
  ++d.count;
  if (!d.gaveUp && d.followers.find(shape) == d.followers.end()) {
    d.followers.emplace(Str(std::string(shape)));
    ++d.numFollowers;
  }
  return d;
}

uint32_t CurrentLineDataHash::getCurrentLineDataCount(std::string_view shape) {
  const CurrentLineData* d = _table.find(shape);
  return d ? d->count : 0;
}

void CurrentLineDataHash::giveUp(CurrentLineData& data) {
  data.gaveUp = true;
  data.followers.clear();
}
