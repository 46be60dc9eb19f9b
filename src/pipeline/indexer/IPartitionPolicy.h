// IPartitionPolicy: the interface of one index as the index processor and
// the query engine see it: write events, query values, read events back.
//
// It also holds the cross-process directory lock used by every policy:
// lockDir(path) takes "<path>.lock" through the engine's st_lock, sleeping
// one second at a time while another process holds it. LockContainer counts
// these per path so that nested locks in one process take it once.
//
// Threads: implementations say which of their members any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/QueryHint.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "pipeline/indexer/WritableEvent.h"
#include "util/Pathname.h"
#include "util/Str.h"

class IPartitionPolicy {
 public:
  virtual ~IPartitionPolicy() = default;

  // Writes one event; false when it was dropped or could not be stored.
  virtual bool write(const WritableEvent& ev) = 0;
  // Values of the events in [start, end] holding every AND term, one OR
  // term (if any) and no NOT term, newest first, after skipping `skip`, at
  // most `count`. False when the query could not run.
  virtual bool query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                     const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                     std::vector<ValueWrapper>& out, size_t skip = 0) = 0;
  // The next block of such a query: at most `count` values below those the
  // hint says were handed out, newest first; the hint then covers them too.
  // A hint whose last block came back short gives nothing more. False when
  // the query could not run (the hint is unchanged).
  bool query(QueryHint& hint, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
             const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
             std::vector<ValueWrapper>& out);
  // The same for one term.
  bool query(QueryHint& hint, const Str& term, int32_t start, int32_t end, size_t count,
             std::vector<ValueWrapper>& out) {
    return query(hint, std::vector<Str>{term}, {}, {}, start, end, count, out);
  }
  // Reads one event back; false when it cannot be read.
  virtual bool read(const ValueWrapper& value, DataWrapper& out) = 0;

  // Takes the directory lock of path ("<path>.lock"), waiting while another
  // process holds it. False when the lock cannot be taken at all.
  static bool lockDir(const Pathname& path);
  static bool unlockDir(const Pathname& path);
};
