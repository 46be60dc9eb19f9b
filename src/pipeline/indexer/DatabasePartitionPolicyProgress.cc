// Read positions of followed files, stored together with the slices that
// hold their data.
//
// DESIGN. The file tracker's position of a file must never be ahead of what
// the index holds (a crash would lose the lines in between), and should not
// fall behind it (a restart would index them twice). Both are kept by
// ordering two writes. Each event of a followed file carries how far into
// its file it reaches; the write path notes the newest one per source under
// the hot bucket's index lock, right after the event's terms went in. The
// engine calls the bucket's slice-write hook under that same lock just
// before it writes a slice, after the raw data has been flushed; the hook
// hands every noted position of that bucket to the commit listener, which
// stores them (and makes them durable) before it returns. So when a slice
// reaches the disk, the positions of its events are already there, each
// naming the bucket, address and time of the event it stands for. A crash
// between the two writes leaves a stored position whose event is not on
// disk: isCommitted() finds that out at the next start, and the tracker
// then takes the position stored before it, whose slice was written (the
// hook runs once per slice, one slice after another).
//
// What is not covered: an event cut in two by a slice that filled up
// halfway through its terms (the probe before each event makes this rare),
// and indexes written by indexing threads (indexThreads above 0), whose
// slices are written by the threads' own handles.
#include <algorithm>

#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/TEDB.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

void DatabasePartitionPolicy::setSliceCommitListener(SliceCommitListener listener) {
  ScopedRecursiveLock l(_mutex);
  _commitListener = std::move(listener);
}

bool DatabasePartitionPolicy::hasUncommittedProgress(const Str& source) {
  ScopedLock l(_progressMutex);
  return _progress.count(source) != 0;
}

void DatabasePartitionPolicy::noteProgress(void* ctx) {
  const ProgressNote& n = *static_cast<const ProgressNote*>(ctx);
  DatabasePartitionPolicy& self = *n.self;
  ScopedLock l(self._progressMutex);
  std::string_view key(n.source.data(), n.source.size());
  auto it = self._progress.find(key);
  if (it == self._progress.end()) {
    it = self._progress.emplace(Str(std::string(key)), SourceProgress()).first;
    it->second.source = it->first;
  }
  SourceProgress& p = it->second;
  p.at = *n.at;
  p.bucketId = n.bucketId;
  p.address = n.address;
  p.time = n.time;
}

int DatabasePartitionPolicy::onSliceWrite(void* ctx, TEDB& bucket) {
  return static_cast<DatabasePartitionPolicy*>(ctx)->commitProgress(bucket.id());
}

int DatabasePartitionPolicy::commitProgress(uint32_t bucketId) {
  std::vector<SourceProgress> batch;
  {
    ScopedLock l(_progressMutex);
    // Every noted event is in this bucket: there is one hot bucket, and a
    // roll writes the old one's last slice before events reach the new one.
    // Its id is taken now, as the id of a hot bucket can be settled late.
    batch.reserve(_progress.size());
    for (auto& [source, p] : _progress) {
      batch.push_back(std::move(p));
      batch.back().bucketId = bucketId;
    }
    _progress.clear();
  }
  if (batch.empty() || !_commitListener) return 0;
  if (_commitListener(*this, batch)) return 0;
  // Not stored: the slice stays in memory, and so do the positions, unless
  // a newer event of the same source has been noted meanwhile.
  gLogger.error("Unable to store the read positions of %lu files for %s; the data waits in memory",
                (unsigned long)batch.size(), _params.name.c_str());
  ScopedLock l(_progressMutex);
  for (SourceProgress& p : batch) _progress.emplace(p.source, std::move(p));
  return -1;
}

bool DatabasePartitionPolicy::isCommitted(uint32_t bucketId, const Str& source, uint32_t address, int32_t time) {
  {
    ScopedReader r(_tableLock);
    if (!_table.findById(bucketId)) return true;
  }
  std::vector<Str> terms{lowercase(StrSegment("source::" + source))};
  std::vector<ValueWrapper> found;
  if (!queryBucket(bucketId, terms, {}, {}, time, time, 1000000, found)) return false;
  return std::any_of(found.begin(), found.end(), [&](const ValueWrapper& v) { return v.address == address; });
}
