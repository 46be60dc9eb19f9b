#include "pipeline/indexer/DatabasePartitionTable.h"

#include <algorithm>

void DatabasePartitionTable::noteId(uint32_t id) {
  if (!anyId || id > highestId) highestId = id;
  anyId = true;
}

uint32_t DatabasePartitionTable::takeNextId() {
  highestId = anyId ? TEDB::nextId(highestId) : 0;
  anyId = true;
  return highestId;
}

std::vector<DatabasePartitionTable::Bucket> DatabasePartitionTable::all() const {
  std::vector<Bucket> out;
  if (hot) out.push_back(hot);
  out.insert(out.end(), warm.begin(), warm.end());
  out.insert(out.end(), cold.begin(), cold.end());
  out.insert(out.end(), thawed.begin(), thawed.end());
  return out;
}

std::vector<DatabasePartitionTable::Bucket> DatabasePartitionTable::getMatchingDBsByTime(int64_t start,
                                                                                       int64_t end) const {
  std::vector<Bucket> out;
  for (const Bucket& b : all())
    if (b->hasTimes() && b->startTime() <= end && b->endTime() >= start) out.push_back(b);
  std::sort(out.begin(), out.end(), TEDBCompareByEndTimeLatestFirst());
  return out;
}

DatabasePartitionTable::Bucket DatabasePartitionTable::findById(uint32_t id) const {
  for (const Bucket& b : all())
    if (b->id() == id) return b;
  return nullptr;
}

bool DatabasePartitionTable::remove(const TEDB* b) {
  bool found = false;
  if (hot.get() == b) {
    hot.reset();
    found = true;
  }
  auto drop = [&](auto& list) {
    for (auto it = list.begin(); it != list.end();) {
      if (it->get() == b) {
        it = list.erase(it);
        found = true;
      } else {
        ++it;
      }
    }
  };
  drop(warm);
  drop(cold);
  drop(coldOpen);
  drop(thawed);
  return found;
}

void DatabasePartitionTable::clear() {
  hot.reset();
  warm.clear();
  cold.clear();
  coldOpen.clear();
  thawed.clear();
  highestId = 0;
  anyId = false;
}
