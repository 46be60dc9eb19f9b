// FileProgress: how far into its file an event reaches, carried from the
// file input to the index so that a read position is recorded only together
// with the data it covers.
//
// The input sets it on each event of a followed file: the file's head hash,
// the offset just past the event, the hash of the bytes before that offset
// and the file's modification time (the fields of the file tracker's seek
// record). The index remembers, per source, the newest event written with
// one; before each slice of the hot bucket is written, it hands them to its
// commit listener (SourceProgress), which stores the positions ahead of the
// slice. See DatabasePartitionPolicy::setSliceCommitListener.
//
// Plain values; any thread.
#pragma once

#include <cstdint>

#include "util/Str.h"

struct FileProgress {
  uint64_t initCRC = 0;  // hash of the file's head
  uint64_t seekCRC = 0;  // hash of the bytes before seekPtr
  uint64_t seekPtr = 0;  // offset just past the event
  int64_t modTime = 0;   // modification time of the file when read
};

// The newest event of one source in the hot bucket, not yet in a slice on
// disk: where it came from and where it went.
struct SourceProgress {
  Str source;             // the plain source (the file's path)
  FileProgress at;
  uint32_t bucketId = 0;  // the hot bucket's id when it was written
  uint32_t address = 0;   // its raw data address in that bucket
  int32_t time = 0;       // its time
};
