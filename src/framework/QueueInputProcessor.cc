#include "framework/QueueInputProcessor.h"

#include "framework/ShutdownLevel.h"
#include "framework/ShutdownManager.h"
#include "util/Timeval.h"

#include "framework/QueueManager.h"

const PluginFactory& QueueInputProcessor::factory() {
  static const SimplePluginFactory<QueueInputProcessor> f("queueinputprocessor");
  return f;
}

void QueueInputProcessor::readQueueConfig(const xml::node& config, Str& queueName, size_t& maxSize,
                                          bool& saveContents) {
  std::string text;
  if (!config.child_content("queueName", text) || text.empty())
    throw PluginException("Couldn't find 'queueName' tag in processor config");
  queueName = text;
  maxSize = 1000;
  if (config.child_content("maxSize", text)) {
    unsigned long v = 0;
    if (!Str(text).tryToUnsignedLong(v) || v == 0)
      throw PluginException("Invalid 'maxSize' in processor config: '" + text + "'");
    maxSize = v;
  }
  saveContents = true;
  if (config.child_content("saveContents", text) && !Str(text).tryToBool(saveContents))
    throw PluginException("Invalid 'saveContents' in processor config: '" + text + "'");
}

QueueInputProcessor::~QueueInputProcessor() {
  if (_level) _level->unregisterHandler(this);
  if (_queue != nullptr) QueueManager::instance().removeQueue(_queueName);
}

void QueueInputProcessor::init(const xml::node& config, const xml::node&) {
  size_t maxSize;
  bool saveContents;
  readQueueConfig(config, _queueName, maxSize, saveContents);
  std::string level;
  if (config.child_content("shutdownLevel", level) && !level.empty()) {
    _level = ShutdownManager::instance().findLevel(level);
    if (!_level) throw PluginException("Unknown 'shutdownLevel' in processor config: '" + level + "'");
  }
  _queue = QueueManager::instance().getQueue(_queueName, maxSize, saveContents);
  if (_level) _level->registerHandler(this, "queue input " + _queueName);
}

std::shared_ptr<PipelineData> QueueInputProcessor::createPipelineData() {
  {
    // Coming back for a record means the one before has been through.
    ScopedLock l(_stateMutex);
    _busy = false;
    _stateCond.internal_wake_all();
    if (_stopping) return nullptr;
    _busy = true;
  }
  ProducerConsumerQueue::Record record;
  if (_queue == nullptr || !_queue->remove(record, 1)) {
    ScopedLock l(_stateMutex);
    _busy = false;
    _stateCond.internal_wake_all();
    return nullptr;
  }
  return record;
}

bool QueueInputProcessor::signalShutdown() {
  ScopedLock l(_stateMutex);
  _stopping = true;
  const double deadline = Timeval::now().toDouble() + kStopWaitSeconds;
  while (_busy) {
    double left = deadline - Timeval::now().toDouble();
    if (left <= 0) break;
    _stateCond.wait(_stateMutex, left);
  }
  return true;
}

int QueueInputProcessor::execute(std::shared_ptr<PipelineData>&) { return eOk; }
