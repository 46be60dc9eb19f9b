#include "framework/QueueOutputProcessor.h"

#include "framework/QueueInputProcessor.h"
#include "framework/QueueManager.h"
#include "util/Logger.h"

static Logger gLogger("QueueOutputProcessor");

const PluginFactory& QueueOutputProcessor::factory() {
  static const SimplePluginFactory<QueueOutputProcessor> f("queueoutputprocessor");
  return f;
}

QueueOutputProcessor::~QueueOutputProcessor() {
  QueueManager& m = QueueManager::instance();
  for (const auto& [name, queue] : _routes) m.removeQueue(name);
  if (_queue != nullptr) m.removeQueue(_queueName);
}

void QueueOutputProcessor::init(const xml::node& config, const xml::node&) {
  QueueInputProcessor::readQueueConfig(config, _queueName, _maxSize, _saveContents);
  _queue = QueueManager::instance().getQueue(_queueName, _maxSize, _saveContents);
}

ProducerConsumerQueue* QueueOutputProcessor::routeFor(const PipelineData& record) {
  PipelineData::SharedStr target = record.getIfAvail(PipelineData::queueKey);
  if (!target || target->empty() || *target == _queueName) return _queue;
  auto it = _routes.find(*target);
  if (it != _routes.end()) return it->second;
  try {
    ProducerConsumerQueue* q = QueueManager::instance().getQueue(*target, _maxSize, _saveContents);
    _routes.emplace(*target, q);
    return q;
  } catch (const QueueManagerException& e) {
    gLogger.error(e);  // shutting down: the own queue refuses the record too
    return _queue;
  }
}

int QueueOutputProcessor::execute(std::shared_ptr<PipelineData>& record) {
  ProducerConsumerQueue* q = routeFor(*record);
  while (!q->insert(record, 1)) {
    if (q->isShutdown()) {
      gLogger.warn("Queue %s has shut down; a record for it is dropped", q->getName().c_str());
      break;
    }
  }
  return eOk;
}
