// ProducerConsumerQueue: a named, bounded (or unbounded), blocking queue of
// pipeline records, shared by any number of producer and consumer threads.
//
// DESIGN. All state lies under one mutex, with one condition for producers
// and one for consumers; both are signalled one waiter at a time, and a
// shutdown wakes everybody. Records move as shared pointers: nothing is
// copied between threads.
//   - A full queue either blocks its producer (for a time-out, or without
//     limit when the time-out is 0), drops the record (a dropping queue), or,
//     when persistent, appends the record to its overflow file while the
//     bytes stored stay below the file limit and no read of that file is
//     under way. Once a consumer starts reading the file, nothing is added
//     to it until it is read to its end; then it is truncated to 0 bytes.
//     What lies in the file goes out ahead of what is in memory.
//   - Hysteresis: a producer blocked at a full queue is woken only when the
//     queue has drained below half of its maximum size.
//   - At shutdown(seconds) the queue pauses with its mutex released so that
//     consumers can drain, then saves what is left in memory to
//     <VELMOR_HOME>/var/lib/velmor/queues/<name>; the next queue of that name
//     takes the records back with restore(), beyond its size if need be.
//     After shutdown, insert() and remove() sleep their time-out and fail,
//     so that callers' retry loops slow down instead of spinning.
//
// Record file format, for the overflow file and the saved contents alike:
// per record the decimal length and "\n" ("%lu\n"), the bytes written by
// PipelineData::serialize, then "\n".
//
// Choices beyond the plain algorithm:
//   - The length line is read whole, not through a fixed small buffer, so
//     records of any size up to kMaxRecordBytes (64 MiB) come back; a larger
//     length is refused as corrupt ("Record size %s is above the limit of
//     %lu restoring queue file for queue: %s, queue not restored").
//   - The saved contents are written to "<name>.tmp", synced and renamed, so
//     a crash while saving leaves the previous file or none, never half of
//     one. A corrupt saved file gives back the records before the damage, is
//     logged and removed.
//   - A consumer does not wait while the overflow file holds records, even
//     when memory is empty (a queue started on a left-over file drains it).
//   - An overflow file left half read at shutdown is cut down to its unread
//     records, so they are not delivered twice after a restart.
//   - A failed append to the overflow file is logged and the record is
//     treated as if the file were at its limit (the producer blocks, or a
//     dropping queue drops it); a partly written record is cut off.
//   - isFull() is size >= maximum: a restored queue may be above its limit.
//   - A producer or consumer waiting when shutdown comes fails at once.
//   - setNeedToEmpty() stops new records going to the overflow file until
//     the file has been read to its end.
//
// Ownership: the creator (usually QueueManager) owns the queue; the queue
// owns its files. REQUIRES: no thread is inside a member when it is
// destroyed. Threads: every public member may be called from any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "framework/PipelineData.h"
#include "util/ConditionBaseClass.h"
#include "util/FileStar.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct metric;
class TFunctor;

class ProducerConsumerQueue {
 public:
  using Record = std::shared_ptr<PipelineData>;

  // The largest record the restore and overflow reads accept.
  static constexpr unsigned long kMaxRecordBytes = 64ul << 20;

  // Unbounded.
  ProducerConsumerQueue();
  // Bounded to maxSize records. REQUIRES: maxSize > 0.
  explicit ProducerConsumerQueue(size_t maxSize);
  // Bounded; dropWhenFull loses records a full queue can't take; persistent
  // overflows into directory/fileName up to maxFileBytes. The directory is
  // made when missing; a readable non-empty file there is taken as stored
  // records. REQUIRES: maxSize > 0.
  ProducerConsumerQueue(size_t maxSize, bool dropWhenFull, bool persistent, uint64_t maxFileBytes,
                        const Pathname& directory, const Str& fileName);
  ~ProducerConsumerQueue();
  ProducerConsumerQueue(const ProducerConsumerQueue&) = delete;
  ProducerConsumerQueue& operator=(const ProducerConsumerQueue&) = delete;

  // True when the record was taken (into memory or the overflow file, or
  // dropped by a dropping queue). seconds 0 waits without limit. After
  // shutdown: sleeps `seconds`, false (a retry loop should pass seconds > 0,
  // or it spins).
  bool insert(const Record& record, int seconds = 0);
  // Never waits: false when full or shut down.
  bool insertFromSameThread(const Record& record);

  // The next record into `record`; false on time-out (seconds 0 waits
  // without limit) or shutdown (after sleeping `seconds`).
  bool remove(Record& record, int seconds);
  // Waits without limit and throws the record away. REQUIRES: not called
  // once shutdown has been signalled (it then logs once a second for ever).
  bool remove();

  bool isFull();
  // Records in memory (not those in the overflow file).
  size_t getNumberOfEntries();
  size_t getMaxSize() const { return _maxQueueSize; }  // 0 when unbounded
  bool isBounded() const { return _bounded; }
  bool isShutdown();

  void setName(const Str& name);
  Str getName();
  void setNeedToEmpty();

  // Fails every later insert and remove, wakes all waiters; saves nothing.
  void signalShutdown();
  // Pauses `seconds` with the mutex released, saves the memory contents,
  // closes the overflow file, then signals shutdown.
  void shutdown(int seconds);
  // Takes back the contents saved under this queue's name, if any.
  void restore();
  // Called with each record taken back by restore(), before any consumer
  // sees it (the service tells the file tracker how far those records
  // reach, so that their lines are not read again). Null: none.
  using RestoreObserver = void (*)(const PipelineData& record);
  static void setRestoreObserver(RestoreObserver observer);

  // Registers "queue:<name>" with MetricsManager. REQUIRES: named.
  void setupMetrics();
  // Reports the counters and resets them.
  void addMetrics(metric* m);

  // <VELMOR_HOME>/var/lib/velmor/queues
  static Pathname getQueueFlushPath();

 private:
  enum class ReadResult { eRecord, eEnd, eError };

  bool isFullLocked() const;
  void pushLocked(const Record& record);
  // Takes the next record (file first); false when there is none.
  bool takeLocked(Record& record);
  bool readFromStoreLocked(Record& record);
  void finishStoreLocked();
  bool appendToStoreLocked(const Record& record);
  void compactStoreLocked();
  void saveQueueContents();
  void restoreQueueContents();
  // Reads one record of the record file format.
  ReadResult readRecord(FILE* f, Record& record);

  std::deque<Record> _queue;
  const bool _bounded;
  const size_t _maxQueueSize;
  const bool _dropWhenFull;

  const bool _persistent;
  Pathname _storePath;
  const uint64_t _maxFileBytes;
  uint64_t _bytesStored = 0;
  bool _storedData = false;
  bool _needToEmpty = false;
  bool _readUnderWay = false;
  FileStar _readFile;
  FileStar _writeFile;
  Str _buffer;  // reused for every record written or read

  Mutex _mutex;
  ConditionBaseClass _producers;
  ConditionBaseClass _consumers;

  size_t _largestSize = 0;
  size_t _smallestSize = 0;
  unsigned long _emptyCount = 0;
  unsigned long _filledCount = 0;

  Str _name;
  bool _shutdown = false;
  TFunctor* _metricsCallback = nullptr;
  Str _metricsName;
};
