// FileData: what the file tracker knows about one followed file: the hash of
// its head (its identity), how far it was read and the hash of the bytes just
// before that point, its size and modification times, the source it is read
// as and the tracking rule that decides how it is recognised again.
//
// A plain value: the caller that follows the file owns it and hands it to
// FileInputTracker, which fills in the hashes and the resume point. One
// thread at a time per object.
#pragma once

#include <cstdint>

#include "util/Str.h"

// Keys of an event read from a followed file that say how far into the
// file it reaches, beside PipelineData::seekAddrKey ("seekaddr", the decimal
// offset just past the event): the file's head hash and the hash of the
// bytes before that offset, in hexadecimal, and the file's modification
// time in seconds. The index stores the position of the newest one with
// the slice that holds it.
inline constexpr const char kInitCRCKey[] = "_initcrc";
inline constexpr const char kSeekCRCKey[] = "_seekcrc";
inline constexpr const char kModTimeKey[] = "_modtime";

struct FileData {
  uint64_t initCRC = 0;    // hash of the salt and the first 256 bytes (after skipped headers)
  uint64_t seekCRC = 0;    // hash of the bytes before seekPtr (see FileInputTracker)
  uint64_t seekPtr = 0;    // where reading resumes
  uint64_t fileSize = 0;   // size when last looked at
  int64_t modTime = 0;     // modification time of the file now
  int64_t storedModTime = 0;  // modification time when the position was recorded
  int64_t eventTime = 0;   // time of the last event read from it
  Str source;              // "source::<path>"; REQUIRES it starts so
  Str crcSalt;             // the input's crcSalt; "<SOURCE>" stands for the path
  int trackingRule = 0;    // see the constants below

  static constexpr int kRuleUnset = 0;
  static constexpr int kRuleEndpointMd5 = 1;  // hash of the 256 bytes before seekPtr
  static constexpr int kRuleEntireMd5 = 2;    // hash of bytes 0..seekPtr
  static constexpr int kRuleModTime = 3;      // recognised by path and modification time

  // source without its "source::" prefix.
  Str path() const {
    static constexpr const char kPrefix[] = "source::";
    if (source.compare(0, sizeof(kPrefix) - 1, kPrefix) == 0) return Str(source.substr(sizeof(kPrefix) - 1));
    return source;
  }
};
