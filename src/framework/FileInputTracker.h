// FileInputTracker: remembers how far each followed file was read, so that
// following survives renames (rotation) and restarts of the process.
//
// A file is known by the hash of its first 256 bytes (salted with the
// input's crcSalt; leading exchange-log and CSV header lines skipped), not by
// its path: a renamed file with the same head resumes where it was left, and
// a new file at an old path starts at 0. To check that the known file was
// not rewritten, the bytes before the resume point are hashed too (all of
// them under the entire_md5 rule, the 256 before it otherwise). Under the
// modtime rule the path and the modification time decide instead.
//
// Positions are kept in a cache in memory (by head hash; by path for the
// modtime rule) and, for restarts, as events of the index "_thefileseeks"
// that the record sink delivers; after a restart they are found again through
// the query runner. The newest record of a file wins.
//
// Ownership: one process-wide instance (instance()); the query runner and
// the record sink are set by the service before the first check (tests set
// fakes). Threads: every public call may come from any thread; a mutex
// guards the cache and is held while the query runner searches (so the
// runner must not call back in); the sink is called without it.
// Failures never stop the caller: they degrade to reading from 0 or to
// refusing the file (-1).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "framework/FileData.h"
#include "framework/PipelineData.h"
#include "pipeline/indexer/IQueryRunner.h"
#include "util/FileDescriptor.h"
#include "util/Mutex.h"
#include "util/Str.h"

class FileInputTracker {
 public:
  static FileInputTracker& instance();
  // The tracker if one was made, else null (nothing is made).
  static FileInputTracker* existing();
  ~FileInputTracker();

  // Decides where reading of the open file resumes. Fills initCRC, fileSize,
  // modTime and the tracking rule, and puts the resume point into seekPtr.
  // Returns -1 when the file is unusable (cannot be read or hashed), else 0.
  // REQUIRES: data.source starts with "source::".
  int checkFile(const FileDescriptor& fd, FileData& data);
  // The same; opens data.path() itself.
  int checkFile(FileData& data);

  // Records data (initCRC, seekPtr, seekCRC, modTime) in the cache and sends
  // the record to the sink. Nothing is recorded for a file without a head
  // hash (a zero-length one) unless it follows the modtime rule.
  // REQUIRES: seekCRC matches seekPtr: call updateSeekCRC after moving
  // seekPtr, else a restart finds the hash wrong and reads the file again.
  void updateSeek(FileData& data);
  // Cache updated as updateSeek, but the record is returned instead of sent,
  // so that the caller can send it down its own stream right after the data
  // it covers. Null when nothing is recorded (see updateSeek).
  std::shared_ptr<PipelineData> seekRecord(FileData& data);
  // The position an event of a followed file carries (its keys named in
  // FileData.h), taken into the cache only: a line that waits in a queue
  // restored at start is not read again, while the stored position stays
  // what the index holds. False when the event carries none.
  bool notePosition(const PipelineData& event);
  // The position an event of a followed file carries (seekaddr and the keys
  // of FileData.h) into data's initCRC, seekCRC, seekPtr and modTime; false
  // when it carries none or they cannot be read.
  static bool readPosition(const PipelineData& event, FileData& data);

  // Hashes the bytes before data.seekPtr into data.seekCRC.
  void updateSeekCRC(const FileDescriptor& fd, FileData& data);
  void updateSeekCRC(FileData& data);

  // Sets data.trackingRule from the CHECK_METHOD setting of the source's
  // layered settings, when it is not set yet.
  void setTrackingRules(FileData& data);

  // Parses a stored record's text; true when it describes this file (head
  // hash, or path under the modtime rule), with seekPtr, seekCRC and
  // storedModTime filled in.
  bool fileSeenBefore(const Str& text, FileData& data);
  // Looks the file up in the index through the query runner; true (and
  // data filled in as by fileSeenBefore) when a record was found.
  bool queryIndex(FileData& data);

  // Logs the state of the cache (nothing to write: the records are events).
  void syncCacheToDisk();
  // Drops entries not updated within the cache window and adapts the window.
  void checkCache();
  void clearCache();

  static const Str& crcSaltKey();  // "crcSalt"

  // Wiring (velmord sets these; tests set fakes).
  void setQueryRunner(IQueryRunner* runner);
  IQueryRunner* queryRunner();
  void setRecordSink(std::function<bool(std::shared_ptr<PipelineData>)> sink);
  // Asked of each stored record found for a file at start, newest first:
  // false when the data the record stands for is not in the index (a crash
  // came between the two), so that the next older record is taken. Called
  // with the tracker's lock held. Null (the default) takes the newest.
  void setRecordVerifier(std::function<bool(const Str& recordText)> verifier);
  // Records looked at with a verifier.
  static constexpr int kVerifiedRecords = 10;
  // Test only: replaces the process-wide instance by a fresh one.
  static void resetForTest();

  // --- helpers, public for the tests ------------------------------------------------------
  // The record text of data (the `_raw` of a seek record).
  static Str recordText(const FileData& data);
  // MD5 of bytes folded to 64 bits: the first 8 bytes of the digest read
  // big-endian, XOR the last 8 read big-endian.
  static uint64_t foldedMd5(const Str& bytes);
  static uint64_t foldedMd5(const char* bytes, size_t n);
  // Seconds an unused cache entry is kept.
  long cacheWindow() const;
  // Entries of both maps.
  size_t cacheSize() const;
  // Test only: the clock of the cache ages (Unix seconds); null restores it.
  void setClockForTest(std::function<int64_t()> clock);

 private:
  FileInputTracker();
  FileInputTracker(const FileInputTracker&) = delete;
  FileInputTracker& operator=(const FileInputTracker&) = delete;

  struct Entry {
    FileData data;
    int64_t touched = 0;  // when last updated, Unix seconds
  };

  int64_t now() const;
  void Locked_setTrackingRules(FileData& data);
  void Locked_checkCache();
  bool Locked_queryIndex(const FileData& data, FileData& stored);
  std::shared_ptr<PipelineData> Locked_updateSeek(const FileData& data);
  void Locked_cacheStore(const FileData& data);
  // Parses a record's text into `stored`; false when it lacks a position.
  static bool parseRecord(const Str& text, FileData& stored);
  // A file read first while shorter than the hashed head is stored under
  // the hash of what it had; found again by path, each short head of the
  // file now is hashed until one matches a stored record.
  bool Locked_queryShortHead(const FileDescriptor& fd, const FileData& data, const Str& salt, FileData& stored);
  // stored describes the same file as data (head hash, or path for modtime).
  static bool sameFile(const FileData& data, const FileData& stored);
  static void takePosition(FileData& data, const FileData& stored);
  std::shared_ptr<PipelineData> makeRecord(const FileData& data) const;

  mutable Mutex _mutex;
  std::map<uint64_t, Entry> _byCRC;
  std::unordered_map<Str, Entry> _byPath;  // modtime rule
  long _window = 60;
  IQueryRunner* _runner = nullptr;
  std::function<bool(std::shared_ptr<PipelineData>)> _sink;
  std::function<bool(const Str&)> _verifier;
  std::function<int64_t()> _clock;
};
