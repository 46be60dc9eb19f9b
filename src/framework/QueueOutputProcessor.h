// QueueOutputProcessor: the last processor of a pipeline that hands its
// records to a named queue (plug-in "queueoutputprocessor").
//
// Config: as QueueInputProcessor: <queueName> (required), <maxSize>
// (default 1000), <saveContents> (default true).
//
// DESIGN. A record whose "queue" key names another queue goes to that
// queue instead (asked of QueueManager on first use with the same size and
// save setting, and kept). While the target is full the processor retries
// with a one-second wait, so no record is lost and the pipeline's thread
// blocks (back-pressure on its source); once the queue has shut down the
// record is logged and dropped, its contents having been saved already.
//
// Ownership: holds one reference on each queue it has used, given back on
// destruction. Threads: its pipeline's thread.
#pragma once

#include <map>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "framework/ProducerConsumerQueue.h"

class QueueOutputProcessor : public Processor {
 public:
  ~QueueOutputProcessor() override;

  // Throws PluginException when <queueName> is missing or a setting is bad,
  // QueueManagerException after the queues have shut down.
  void init(const xml::node& config, const xml::node& global) override;
  // Inserts the record into its queue; returns eOk.
  int execute(std::shared_ptr<PipelineData>& record) override;

  ProducerConsumerQueue* getQueue() const { return _queue; }

  static const PluginFactory& factory();

 private:
  ProducerConsumerQueue* routeFor(const PipelineData& record);

  Str _queueName;
  size_t _maxSize = 1000;
  bool _saveContents = true;
  ProducerConsumerQueue* _queue = nullptr;
  std::map<Str, ProducerConsumerQueue*> _routes;  // other queues by name
};
