#include "framework/QueueManager.h"

#include "util/Logger.h"

static Logger gLogger("QueueManager");

QueueManager& QueueManager::instance() {
  static QueueManager* m = new QueueManager();  // never destroyed: queues live until exit
  return *m;
}

ProducerConsumerQueue* QueueManager::getQueue(const Str& name, size_t maxSize, bool saveContents) {
  return getQueueCommon(name, false, maxSize, saveContents);
}

ProducerConsumerQueue* QueueManager::getQueueUnlimited(const Str& name, bool saveContents) {
  return getQueueCommon(name, true, 0, saveContents);
}

ProducerConsumerQueue* QueueManager::getQueueCommon(const Str& name, bool unlimited, size_t maxSize,
                                                    bool saveContents) {
  ScopedLock l(_mutex);
  if (_shutdown) throw QueueManagerException("Queue manager has shutdown - cannot hand out queue %s", name.c_str());
  auto it = _queues.find(name);
  if (it != _queues.end()) {
    ++it->second->refCount;
    return it->second->queue.get();
  }
  auto entry = std::make_shared<Entry>();
  entry->queue = unlimited || maxSize == 0 ? std::make_unique<ProducerConsumerQueue>()
                                           : std::make_unique<ProducerConsumerQueue>(maxSize);
  entry->refCount = 1;
  ProducerConsumerQueue* q = entry->queue.get();
  q->setName(name);
  q->setupMetrics();
  if (saveContents) q->restore();
  _queues.emplace(name, std::move(entry));
  return q;
}

bool QueueManager::removeQueue(const Str& name) {
  std::shared_ptr<Entry> doomed;
  {
    ScopedLock l(_mutex);
    auto it = _queues.find(name);
    if (it == _queues.end()) return false;
    if (--it->second->refCount > 0) return true;
    doomed = std::move(it->second);
    _queues.erase(it);
  }
  // Deleted outside the manager's mutex: the queue unregisters its metrics.
  doomed.reset();
  return true;
}

bool QueueManager::exists(const Str& name) {
  ScopedLock l(_mutex);
  return _queues.count(name) != 0;
}

bool QueueManager::signalShutdown() {
  ScopedLock l(_mutex);
  _shutdown = true;
  for (auto& [name, entry] : _queues) {
    gLogger.info("Shutting down queue named %s", name.c_str());
    entry->queue->shutdown(0);
  }
  return true;
}

void QueueManager::resetForTest() {
  QueueManager& m = instance();
  std::map<Str, std::shared_ptr<Entry>> doomed;
  {
    ScopedLock l(m._mutex);
    doomed.swap(m._queues);
    m._shutdown = false;
  }
}
