// DatabasePartitionTable: the lists of buckets of one index: the hot bucket,
// the warm queue (oldest first), the cold list (every cold bucket, open or
// not), the cold open queue (cold buckets opened for searches, oldest
// opened first) and the thawed list; and the highest id handed out.
//
// Threads: no lock of its own; the owning policy guards it with its
// reader-writer lock (readers look, the writer changes).
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "pipeline/indexer/TEDB.h"

class DatabasePartitionTable {
 public:
  using Bucket = std::shared_ptr<TEDB>;

  Bucket hot;
  std::deque<Bucket> warm;
  std::vector<Bucket> cold;
  std::deque<Bucket> coldOpen;
  std::vector<Bucket> thawed;
  uint32_t highestId = 0;
  bool anyId = false;  // highestId names a real bucket

  // Notes an id seen on disk.
  void noteId(uint32_t id);
  // The id for a new bucket: one past the highest, wrapping to 0 past
  // 0x7FFFFFFF; it becomes the highest.
  uint32_t takeNextId();

  // Every bucket: hot, warm, cold, thawed.
  std::vector<Bucket> all() const;
  // Buckets whose time range overlaps [start, end], latest end first. The hot
  // bucket is included while it has events.
  std::vector<Bucket> getMatchingDBsByTime(int64_t start, int64_t end) const;
  // The bucket of that id, or null.
  Bucket findById(uint32_t id) const;
  // Removes the bucket from every list. True if it was listed.
  bool remove(const TEDB* b);
  void clear();
};
