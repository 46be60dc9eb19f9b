#include "framework/ProducerConsumerQueue.h"

#include <atomic>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>

#include "framework/MetricsManager.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"

static Logger gLogger("ProducerConsumerQueue");

namespace {

// A wait limit of whole seconds; 0 or less waits without limit.
class Deadline {
 public:
  explicit Deadline(int seconds)
      : _unlimited(seconds <= 0),
        _end(std::chrono::steady_clock::now() + std::chrono::seconds(seconds > 0 ? seconds : 0)) {}
  // Waits on cond once; false when the limit has passed (nothing waited).
  bool wait(ConditionBaseClass& cond, Mutex& m) const {
    if (_unlimited) {
      cond.wait(m);
      return true;
    }
    std::chrono::duration<double> left = _end - std::chrono::steady_clock::now();
    if (left.count() <= 0) return false;
    cond.wait(m, left.count());
    return true;
  }

 private:
  bool _unlimited;
  std::chrono::steady_clock::time_point _end;
};

void sleepSeconds(int seconds) {
  if (seconds > 0) ::sleep(unsigned(seconds));
}

// Writes one record in the record file format; false on a write error.
bool writeRecord(FILE* f, const Str& bytes) {
  return std::fprintf(f, "%lu\n", static_cast<unsigned long>(bytes.size())) > 0 &&
         std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size() && std::fputc('\n', f) != EOF;
}

// Flushes and syncs f, then closes it; false when any step failed.
bool syncAndClose(FileStar& f) {
  bool ok = std::fflush(f.get()) == 0 && ::fsync(fileno(f.get())) == 0;
  return f.close() && ok;
}

// Syncs the directory entry of a renamed file; best effort.
void syncDirectory(const Pathname& dir) {
  FileDescriptor fd = dir.openReadOnly();
  if (!fd.isValid()) return;
  ::fsync(fd.get());
  fd.close();
}

}  // namespace

ProducerConsumerQueue::ProducerConsumerQueue()
    : _bounded(false), _maxQueueSize(0), _dropWhenFull(false), _persistent(false), _maxFileBytes(0) {}

ProducerConsumerQueue::ProducerConsumerQueue(size_t maxSize)
    : _bounded(true), _maxQueueSize(maxSize), _dropWhenFull(false), _persistent(false), _maxFileBytes(0) {}

ProducerConsumerQueue::ProducerConsumerQueue(size_t maxSize, bool dropWhenFull, bool persistent,
                                             uint64_t maxFileBytes, const Pathname& directory,
                                             const Str& fileName)
    : _bounded(true),
      _maxQueueSize(maxSize),
      _dropWhenFull(dropWhenFull),
      _persistent(persistent),
      _maxFileBytes(maxFileBytes) {
  if (!_persistent) return;
  _storePath = directory / fileName;
  gLogger.info("Setting up queue with persistent store: %s", _storePath.c_str());
  if (!directory.isDir() && !directory.mkdir_p())
    gLogger.error("Unable to create directory %s for the queue's persistent store [%m]", directory.c_str());
  uint64_t size = 0;
  if (_storePath.r_ok() && _storePath.getSize(size) && size > 0) {
    gLogger.info("Found stored data");
    gLogger.info("  of size: %lld", static_cast<long long>(size));
    _storedData = true;
    _bytesStored = size;
  }
}

ProducerConsumerQueue::~ProducerConsumerQueue() {
  if (_metricsCallback != nullptr) MetricsManager::instance().unregisterCallback(_metricsName, _metricsCallback);
  ScopedLock l(_mutex);
  if (_readUnderWay) compactStoreLocked();
  if (_readFile.isValid()) _readFile.close();
  if (_writeFile.isValid()) _writeFile.close();
}

// --- inserting ---------------------------------------------------------------------------

bool ProducerConsumerQueue::isFullLocked() const { return _bounded && _queue.size() >= _maxQueueSize; }

void ProducerConsumerQueue::pushLocked(const Record& record) {
  _queue.push_back(record);
  if (_queue.size() > _largestSize) _largestSize = _queue.size();
  if (isFullLocked()) ++_filledCount;
  _consumers.internal_wake_one();
}

bool ProducerConsumerQueue::insert(const Record& record, int seconds) {
  ScopedLock l(_mutex);
  if (_shutdown) {
    ScopedUnlock u(_mutex);
    sleepSeconds(seconds);
    return false;
  }
  Deadline deadline(seconds);
  while (isFullLocked()) {
    // A failed append keeps the record with the caller (it blocks or drops
    // below instead of losing the record silently).
    if (_persistent && !_readUnderWay && !_needToEmpty && _bytesStored < _maxFileBytes &&
        appendToStoreLocked(record))
      return true;
    if (_dropWhenFull) return true;
    if (!deadline.wait(_producers, _mutex)) return false;
    if (_shutdown) return false;
  }
  pushLocked(record);
  return true;
}

bool ProducerConsumerQueue::insertFromSameThread(const Record& record) {
  ScopedLock l(_mutex);
  if (_shutdown || isFullLocked()) return false;
  pushLocked(record);
  return true;
}

// --- removing ----------------------------------------------------------------------------

bool ProducerConsumerQueue::remove(Record& record, int seconds) {
  ScopedLock l(_mutex);
  if (_shutdown) {
    ScopedUnlock u(_mutex);
    sleepSeconds(seconds);
    return false;
  }
  Deadline deadline(seconds);
  for (;;) {
    while (_queue.empty() && !_storedData) {
      if (!deadline.wait(_consumers, _mutex)) return false;
      if (_shutdown) {
        gLogger.info("System is shuting down, cannot wait for queue to empty");
        return false;
      }
    }
    if (takeLocked(record)) return true;
  }
}

bool ProducerConsumerQueue::remove() {
  ScopedLock l(_mutex);
  for (;;) {
    if (_shutdown) {
      gLogger.error("remove() sleeping in shutdown - nobody should call this function");
      ScopedUnlock u(_mutex);
      ::sleep(1);
      continue;
    }
    if (_queue.empty() && !_storedData) {
      _consumers.wait(_mutex);
      continue;
    }
    Record dropped;
    if (takeLocked(dropped)) return true;
  }
}

bool ProducerConsumerQueue::takeLocked(Record& record) {
  if (_storedData) {
    if (readFromStoreLocked(record)) {
      _readUnderWay = true;
      _producers.internal_wake_one();
      return true;
    }
    finishStoreLocked();
  }
  if (_queue.empty()) return false;
  record = std::move(_queue.front());
  _queue.pop_front();
  if (_queue.size() < _smallestSize) _smallestSize = _queue.size();
  if (_queue.empty()) ++_emptyCount;
  // Hysteresis: a blocked producer goes on only once the queue is below half.
  if (_bounded && _queue.size() * 2 < _maxQueueSize) _producers.internal_wake_one();
  return true;
}

// --- the overflow file -------------------------------------------------------------------

bool ProducerConsumerQueue::appendToStoreLocked(const Record& record) {
  if (!_writeFile.isValid()) {
    _writeFile = _storePath.fopen("a");
    if (!_writeFile.isValid()) {
      gLogger.error("unable to open filename for appending: %s [%m]", _storePath.c_str());
      return false;
    }
  }
  _buffer.clear();
  record->serialize(_buffer);
  if (!writeRecord(_writeFile.get(), _buffer) || !_writeFile.flush()) {
    gLogger.error("Failed to write a record to %s [%m]", _storePath.c_str());
    // Cut off the partial record, and reopen on the next append.
    if (::ftruncate(fileno(_writeFile.get()), off_t(_bytesStored)) != 0)
      gLogger.error("Failed to truncate %s [%m]", _storePath.c_str());
    _writeFile.close();
    return false;
  }
  size_t digits = 1;
  for (size_t v = _buffer.size(); v >= 10; v /= 10) ++digits;
  _bytesStored += digits + 1 + _buffer.size() + 1;
  _storedData = true;
  _consumers.internal_wake_one();
  return true;
}

bool ProducerConsumerQueue::readFromStoreLocked(Record& record) {
  if (!_readFile.isValid()) {
    if (_writeFile.isValid()) _writeFile.flush();
    _readFile = _storePath.fopen("r");
    if (!_readFile.isValid()) {
      gLogger.error("Unable to open file for reading: %s %m", _storePath.c_str());
      return false;
    }
  }
  return readRecord(_readFile.get(), record) == ReadResult::eRecord;
}

void ProducerConsumerQueue::finishStoreLocked() {
  _readUnderWay = false;
  if (_readFile.isValid()) _readFile.close();
  if (_writeFile.isValid()) _writeFile.close();
  if (!_storePath.truncate(0) && errno != ENOENT)
    gLogger.error("Failed to truncate %s [%m]", _storePath.c_str());
  _storedData = false;
  _needToEmpty = false;
  _bytesStored = 0;
}

void ProducerConsumerQueue::compactStoreLocked() {
  // The records before the read position have gone out already: keep only
  // the rest, through a temporary file and a rename.
  if (!_readFile.isValid()) return;
  Pathname tmp(_storePath + ".tmp");
  FileStar out = tmp.fopen("w");
  if (!out.isValid()) {
    gLogger.error("Unable to open %s to keep the unread records of queue %s [%m]", tmp.c_str(), _name.c_str());
    return;
  }
  char chunk[65536];
  uint64_t kept = 0;
  bool ok = true;
  size_t n;
  while ((n = _readFile.read(chunk, sizeof chunk)) > 0) {
    if (!out.write(chunk, n)) ok = false;
    kept += n;
  }
  ok = !_readFile.error() && syncAndClose(out) && ok;
  if (ok && tmp.renameTo(_storePath)) {
    syncDirectory(_storePath.toParent());
    _bytesStored = kept;
    _storedData = kept > 0;
    _readUnderWay = false;
    _readFile.close();
  } else {
    gLogger.error("Failed to keep the unread records of queue %s in %s [%m]", _name.c_str(), tmp.c_str());
    if (out.isValid()) out.close();
    tmp.unlink();
  }
}

ProducerConsumerQueue::ReadResult ProducerConsumerQueue::readRecord(FILE* f, Record& record) {
  // The length line, read whole; a line too long for any sane length is
  // refused without storing all of it.
  _buffer.clear();
  int c;
  bool tooLong = false;
  while ((c = std::getc(f)) != EOF && c != '\n') {
    if (_buffer.size() < 32) _buffer.push_back(char(c));
    else tooLong = true;
  }
  if (c == EOF && _buffer.empty()) return ReadResult::eEnd;
  unsigned long len = 0;
  bool digits = !_buffer.empty() && !tooLong && c == '\n';
  for (char d : _buffer) {
    if (d < '0' || d > '9') {
      digits = false;
      break;
    }
    // Saturates above the cap: the 32 digits kept can't overflow it.
    len = len > kMaxRecordBytes ? len : len * 10 + unsigned(d - '0');
  }
  if (!digits || len == 0) {
    gLogger.error("Zero size found restoring queue file for queue: %s, queue not restored", _name.c_str());
    return ReadResult::eError;
  }
  if (len > kMaxRecordBytes) {
    gLogger.error("Record size %s is above the limit of %lu restoring queue file for queue: %s, queue not restored",
                  _buffer.c_str(), kMaxRecordBytes, _name.c_str());
    return ReadResult::eError;
  }
  try {
    _buffer.resize(len);
  } catch (const std::bad_alloc&) {
    gLogger.error("Unable to allocate memory for buffer of size: %lu restoring queue %s", len, _name.c_str());
    return ReadResult::eError;
  }
  if (std::fread(_buffer.data(), 1, len, f) != len || std::getc(f) != '\n') {
    gLogger.error("short read; aborting restore of queue %s", _name.c_str());
    return ReadResult::eError;
  }
  auto data = std::make_shared<PipelineData>();
  if (!data->ressurrect(_buffer.data(), len)) {
    gLogger.error("Failed to resurrect - aborting restore of queue %s", _name.c_str());
    return ReadResult::eError;
  }
  record = std::move(data);
  return ReadResult::eRecord;
}

// --- state -------------------------------------------------------------------------------

bool ProducerConsumerQueue::isFull() {
  ScopedLock l(_mutex);
  return isFullLocked();
}

size_t ProducerConsumerQueue::getNumberOfEntries() {
  ScopedLock l(_mutex);
  return _queue.size();
}

bool ProducerConsumerQueue::isShutdown() {
  ScopedLock l(_mutex);
  return _shutdown;
}

void ProducerConsumerQueue::setName(const Str& name) {
  ScopedLock l(_mutex);
  _name = name;
}

Str ProducerConsumerQueue::getName() {
  ScopedLock l(_mutex);
  return _name;
}

void ProducerConsumerQueue::setNeedToEmpty() {
  ScopedLock l(_mutex);
  _needToEmpty = true;
}

// --- shutdown, save and restore ----------------------------------------------------------

Pathname ProducerConsumerQueue::getQueueFlushPath() {
  return LoaderInfo::getInstance().getHomePath() / "var/lib/velmor/queues";
}

void ProducerConsumerQueue::signalShutdown() {
  ScopedLock l(_mutex);
  _shutdown = true;
  _producers.internal_wake_all();
  _consumers.internal_wake_all();
}

void ProducerConsumerQueue::shutdown(int seconds) {
  ScopedLock l(_mutex);
  if (_queue.empty()) {
    gLogger.info("Queue %s has 0 events, not saved", _name.c_str());
  } else {
    gLogger.info("Pausing %d seconds then Saving queue %s contents to disk - count=%lu", seconds, _name.c_str(),
                 static_cast<unsigned long>(_queue.size()));
    {
      ScopedUnlock u(_mutex);  // consumers may still drain meanwhile
      sleepSeconds(seconds);
    }
    saveQueueContents();
  }
  if (_persistent) {
    if (_readUnderWay) compactStoreLocked();
    if (!_readUnderWay) {
      if (_readFile.isValid()) _readFile.close();
      if (_writeFile.isValid()) _writeFile.close();
    }
  }
  _shutdown = true;
  _producers.internal_wake_all();
  _consumers.internal_wake_all();
  gLogger.info("Queue %s - done with queue shutdown", _name.c_str());
}

void ProducerConsumerQueue::saveQueueContents() {
  if (_queue.empty()) {
    gLogger.info("Queue %s has 0 events, not saved", _name.c_str());
    return;
  }
  if (_name.empty()) {
    gLogger.error("A queue without a name cannot save its %lu events on shutdown",
                  static_cast<unsigned long>(_queue.size()));
    return;
  }
  Pathname dir = getQueueFlushPath();
  if (!dir.isDir()) {
    if (!dir.mkdir_p()) {
      gLogger.error("Unable to create directory %s, cannot save queue %s data on shutdown: [%m]", dir.c_str(),
                    _name.c_str());
      return;
    }
    gLogger.info("Created directory %s for storing queue contents on shutdown", dir.c_str());
  }
  Pathname path = dir / _name;
  Pathname tmp(path + ".tmp");
  gLogger.info("Shutdown - storing queue contents in %s", path.c_str());
  FileStar f = tmp.fopen("w");
  if (!f.isValid()) {
    gLogger.error("Unable to open filename for appending: %s [%m]", tmp.c_str());
    return;
  }
  bool ok = true;
  for (const Record& r : _queue) {
    _buffer.clear();
    r->serialize(_buffer);
    if (!writeRecord(f.get(), _buffer)) {
      ok = false;
      break;
    }
  }
  ok = syncAndClose(f) && ok;
  if (!ok || !tmp.renameTo(path)) {
    gLogger.error("Failed to save the contents of queue %s in %s [%m]", _name.c_str(), path.c_str());
    if (f.isValid()) f.close();
    tmp.unlink();
    return;
  }
  syncDirectory(dir);
  _queue.clear();  // the records live in the file now
}

void ProducerConsumerQueue::restore() {
  ScopedLock l(_mutex);
  restoreQueueContents();
}

namespace {
std::atomic<ProducerConsumerQueue::RestoreObserver> gRestoreObserver{nullptr};
}  // namespace

void ProducerConsumerQueue::setRestoreObserver(RestoreObserver observer) { gRestoreObserver.store(observer); }

void ProducerConsumerQueue::restoreQueueContents() {
  if (_name.empty()) return;
  Pathname path = getQueueFlushPath() / _name;
  gLogger.info("Trying to restore contents at %s", path.c_str());
  if (!path.exists()) {
    gLogger.info("%s doesn't exist, so nothing to restore", path.c_str());
    return;
  }
  FileStar f = path.fopen("r");
  if (!f.isValid()) {
    gLogger.error("Error opening file %s [%m]", path.c_str());
    return;
  }
  int count = 0;
  Record record;
  ReadResult r;
  RestoreObserver observer = gRestoreObserver.load();
  while ((r = readRecord(f.get(), record)) == ReadResult::eRecord) {
    if (observer && record) observer(*record);
    _queue.push_back(std::move(record));
    ++count;
  }
  f.close();
  if (r == ReadResult::eError) gLogger.error("Had to stop restoring the queue - error");
  if (_bounded && _queue.size() > _maxQueueSize)
    gLogger.warn("Restored %d events into queue %s whose maxsize is %ld", count, _name.c_str(),
                 static_cast<long>(_maxQueueSize));
  else
    gLogger.info("Restored %d events into queue %s", count, _name.c_str());
  if (_queue.size() > _largestSize) _largestSize = _queue.size();
  if (count > 0) _consumers.internal_wake_all();
  if (!path.unlink()) gLogger.error("Failed to remove %s [%m]", path.c_str());
}

// --- metrics -----------------------------------------------------------------------------

void ProducerConsumerQueue::setupMetrics() {
  Str name;
  {
    ScopedLock l(_mutex);
    name = "queue:" + _name;
  }
  gLogger.info("Registering callback for: %s", name.c_str());
  if (_metricsCallback != nullptr) MetricsManager::instance().unregisterCallback(_metricsName, _metricsCallback);
  _metricsName = name;
  _metricsCallback = MetricsManager::instance().registerCallback(
      name, std::make_unique<Functor<ProducerConsumerQueue>>(this, &ProducerConsumerQueue::addMetrics));
}

void ProducerConsumerQueue::addMetrics(metric* m) {
  ScopedLock l(_mutex);
  m->add("max size", static_cast<unsigned long long>(_maxQueueSize));
  m->add("filled count", static_cast<unsigned long long>(_filledCount));
  m->add("empty count", static_cast<unsigned long long>(_emptyCount));
  m->add("current size", static_cast<unsigned long long>(_queue.size()));
  m->add("largest size", static_cast<unsigned long long>(_largestSize));
  m->add("smallest size", static_cast<unsigned long long>(_smallestSize));
  if (isFullLocked()) m->add("blocked!!", "true");
  _largestSize = _queue.size();
  _smallestSize = _queue.size();
  _filledCount = 0;
  _emptyCount = 0;
}
