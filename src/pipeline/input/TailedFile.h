// TailedFile: one file being followed: its open descriptor (when open), its
// identity (device and inode), how far it has been read, the unfinished
// last line, and the making of its records.
//
// Positions:
//   readPos   bytes taken from the descriptor (lines sent plus `partial`);
//   sentPos   just past the last line sent: what a position record stores,
//             so an unfinished line is read again after a restart;
//   recordedPos  sentPos as of the last position record.
// Every line record carries the keys of the file (source, host, source type,
// index, path, channel, the stanza path `_conf`, shared between all records
// of the file) and `seekaddr`, the offset just past its line, with the file
// tracker's view of that point (the head hash, the hash of the 256 bytes
// before it and the file's time; see framework/FileData.h), so that the
// index can store the position of whatever line it last made durable. The
// 256 bytes before the read position are kept (`_window`) to hash them.
//
// Ownership: owned by TailingProcessor, which opens and closes the
// descriptor (it keeps the count of open descriptors); the object closes a
// descriptor still open when it is destroyed. Threads: the pipeline's
// thread only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "framework/FileData.h"
#include "framework/PipelineData.h"
#include "pipeline/input/TailStanza.h"
#include "util/FileDescriptor.h"
#include "util/Str.h"

class TailedFile {
 public:
  using Record = std::shared_ptr<PipelineData>;
  using Out = std::deque<Record>;

  static constexpr size_t kMaxLine = 1024 * 1024;  // longer lines are cut

  // `path` is what the file is followed as (for a compressed file, the
  // compressed file's path); `host` without its "host::" prefix.
  TailedFile(const Str& path, std::shared_ptr<const TailStanza> stanza, const Str& host);
  ~TailedFile();
  TailedFile(const TailedFile&) = delete;
  TailedFile& operator=(const TailedFile&) = delete;

  const Str& path() const { return _path; }
  const TailStanza& stanza() const { return *_stanza; }

  // --- descriptor ---------------------------------------------------------------
  bool isOpen() const { return _fd.isValid(); }
  const FileDescriptor& fd() const { return _fd; }
  // Takes over `fd`; REQUIRES: none is open.
  void adopt(FileDescriptor fd) { _fd = fd; }
  void closeFd() { _fd.close(); }

  // --- reading ------------------------------------------------------------------
  // Forgets the unfinished line and resumes at `pos`. REQUIRES: `data` was
  // just checked by the file tracker.
  void startAt(uint64_t pos);
  // Reads at most `maxBytes` at readPos into `buf` and appends one record
  // per complete line (lines over kMaxLine in pieces). Returns the bytes
  // read, 0 at end of file, -1 on a read error (errno set).
  ssize_t readLines(std::vector<char>& buf, size_t maxBytes, Out& out);
  // Sends the unfinished line, if any, as a record of its own.
  void flushPartial(Out& out);
  bool hasPartial() const { return !_partial.empty(); }
  // Appends the file tracker's position record for sentPos, when it moved
  // since the last one (or always when `force`). Needs the descriptor.
  void pushSeek(Out& out, bool force = false);
  // Appends the end-of-file record (`_done` "1" with the file's keys).
  void pushDone(Out& out);

  // --- state kept by TailingProcessor -----------------------------------------
  FileData data;             // what the file tracker knows of it
  dev_t dev = 0;             // identity of the followed file
  ino_t ino = 0;
  uint64_t readPos = 0;
  uint64_t sentPos = 0;
  uint64_t recordedPos = 0;
  int64_t lastGrowthMs = 0;  // monotonic time the file last grew (or was opened)
  int64_t partialSinceMs = 0;  // monotonic time the unfinished line last grew
  int64_t lastUseMs = 0;     // for choosing which descriptor to close
  bool draining = false;     // renamed away, deleted or compressed: read to end, then finish
  bool wholeFile = false;    // finish as soon as the end is reached (unpacked files)

 private:
  Record newRecord(uint64_t endOffset) const;
  // The progress keys of a line ending at endOffset, whose bytes before it
  // in this read are [chunk, lineEnd).
  void putProgress(PipelineData& r, const char* chunk, const char* lineEnd);
  // The bytes before readPos into _window, from the file.
  void loadWindow();
  void slideWindow(const char* chunk, size_t n);
  void emit(Str&& raw, uint64_t endOffset, Out& out);
  void warnLongLine();
  void refreshHead();

  Str _path;
  std::shared_ptr<const TailStanza> _stanza;
  FileDescriptor _fd;
  Str _partial;            // bytes of the unfinished line (capacity reused)
  bool _longLineWarned = false;
  uint64_t _headBytes = 0;  // bytes the tracker's head hash covered (at most kHead)
  PipelineData::SharedStr _source, _host, _sourceType, _index, _pathValue, _conf, _one;
  // The last (at most 256) bytes before readPos, valid when _windowAt == readPos.
  char _window[256];
  size_t _windowLen = 0;
  uint64_t _windowAt = UINT64_MAX;
  PipelineData::SharedStr _initCRCText, _modTimeText;  // shared by the lines of one read
  uint64_t _initCRCFor = 0;
  int64_t _modTimeFor = -1;
};
