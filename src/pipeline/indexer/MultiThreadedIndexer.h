// MultiThreadedIndexer: one indexing thread of a bucket. It holds its own
// engine handle on the bucket's directory (and so its own hot slice, writing
// its own slices), takes events from a queue and puts their terms.
//
// DESIGN. Producers (the policy's write path, through
// TimeInvertedIndex::index) call addToQueue, which copies the event's texts
// into the pending arena under the queue mutex. The thread waits until the
// queue holds `threads` * 10000 events or 10000000 bytes of text, or until
// sync or shutdown is asked for; then it swaps the pending arena with its
// own (empty) one, so that it takes the whole list at once and producers go
// on filling the other, and indexes the taken events newest-added first.
// A producer waits while the queue holds more than `threads` * 20000 events
// or more than 10000000 bytes ("queue_size=%ld response=waiting."). Both
// arenas keep their capacity, so a steady stream allocates nothing.
// sync() asks the thread to drain the queue and flush its hot slice, and
// waits for that flush. The destructor drains, flushes, closes the handle
// and joins the thread.
//
// Ownership: the owner (a TimeInvertedIndex) owns the object; cleaners named
// by queued events must outlive it. Threads: addToQueue, sync and the
// destructor from any thread but the indexing thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "pipeline/indexer/IndexableEvent.h"
#include "pipeline/indexer/IndexableValue.h"
#include "searchthing/ipcver.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Thread.h"

class MultiThreadedIndexer : public Thread {
 public:
  static constexpr size_t kMaxQueuedBytes = 10000000;
  static constexpr size_t kWakeItemsPerThread = 10000;
  static constexpr size_t kMaxItemsPerThread = 20000;

  struct Sizes {
    uint32_t maxTermChars = 2097152;
    uint32_t maxTerms = 131072;
    uint32_t maxPostings = 2097152;
    uint32_t maxValues = 65536;
    uint64_t maxMemMB = 100;
  };

  // Opens the engine on dir (st_open, then setOptions). `threads` is the
  // number of indexing threads of the bucket, which scales the queue
  // thresholds. The thread is started; ok() says whether the handle opened.
  // REQUIRES: a MainThread exists.
  MultiThreadedIndexer(const Pathname& dir, const Sizes& sizes, size_t threads, unsigned number);
  ~MultiThreadedIndexer() override;

  bool ok() const { return _handle != nullptr; }
  // Copies the event and its value's time, address and codes onto the
  // queue, waiting while the queue is full. REQUIRES: cleaner not null.
  void addToQueue(const IndexableEvent& ev, int32_t time, uint32_t address, uint32_t host, uint32_t source,
                  uint32_t sourceType, GenericCleaner* cleaner);
  // Indexes everything queued so far and flushes the thread's hot slice.
  // False when the flush failed.
  bool sync();
  // Sets the engine's before-write hook of this thread's handle (see
  // st_set_before_write); false for a forked handle. Call before the first
  // event is queued.
  bool setBeforeWrite(int (*fn)(void* ctx), void* ctx);

  void main() override;

 private:
  // Where one queued event's texts lie in its arena.
  struct Item {
    int32_t time;
    uint32_t address, host, source, sourceType;
    GenericCleaner* cleaner;
    size_t meta, metaLen, raw, rawLen, terms, termsLen;
    size_t firstField, fieldCount;  // into the field list
  };
  struct Field {
    size_t key, keyLen, value, valueLen;
  };
  struct Batch {
    std::vector<Item> items;
    std::vector<Field> fields;
    std::vector<char> text;
    void clear() {
      items.clear();
      fields.clear();
      text.clear();
    }
  };

  void setOptions(const Sizes& sizes);
  static size_t append(std::vector<char>& text, const StrSegment& s);
  bool readyLocked() const;
  void indexBatch(Batch& b);
  void stop();

  st_handle* _handle = nullptr;
  const size_t _maxItems;
  const size_t _wakeItems;

  Mutex _mutex;
  ConditionBaseClass _work;   // the thread waits for work
  ConditionBaseClass _space;  // producers wait for room; sync waits for done
  Batch _pending;
  bool _syncAsked = false;
  bool _stopAsked = false;
  uint64_t _syncsAsked = 0;
  uint64_t _syncsDone = 0;
  bool _lastSyncOk = true;

  // The thread's own state.
  Batch _working;
  std::vector<std::pair<StrSegment, StrSegment>> _fieldViews;
  IndexableValue _value;
};
