// QueueInputProcessor: the source processor of a pipeline that reads from a
// named queue (plug-in "queueinputprocessor").
//
// Config: <queueName> (required), <maxSize> (default 1000, the bound if
// this processor creates the queue), <saveContents> (default true: the
// queue keeps its contents across a restart), <shutdownLevel> (optional:
// the name of the shutdown level at which it stops taking records; the
// level then waits until the record taken last has gone through the whole
// pipeline, so that nothing taken from the queue is lost when the steps
// after it close; what stays in the queue is saved with it).
//
// DESIGN. createPipelineData() waits at most one second on the queue, so
// the pipeline's loop sees a stop or shutdown within about a second; after
// the queue has shut down it sleeps that second and gives null.
//
// Ownership: holds one reference on its queue through QueueManager, given
// back on destruction. Threads: its pipeline's thread.
#pragma once

#include "framework/MShutdownHandler.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "framework/ProducerConsumerQueue.h"

class ShutdownLevel;

class QueueInputProcessor : public Processor, public MShutdownHandler {
 public:
  ~QueueInputProcessor() override;

  // Throws PluginException when <queueName> is missing or a setting is bad,
  // QueueManagerException after the queues have shut down.
  void init(const xml::node& config, const xml::node& global) override;
  // The next record of the queue, waiting at most one second; null on
  // time-out or shutdown.
  std::shared_ptr<PipelineData> createPipelineData() override;
  int execute(std::shared_ptr<PipelineData>& record) override;

  ProducerConsumerQueue* getQueue() const { return _queue; }

  // Stops taking records, then waits (at most kStopWaitSeconds) until the
  // last record taken has left the pipeline. True: done.
  bool signalShutdown() override;
  static constexpr double kStopWaitSeconds = 5.0;

  static const PluginFactory& factory();

  // Reads the queue settings shared by both queue processors. Throws
  // PluginException for a missing <queueName> or a bad value.
  static void readQueueConfig(const xml::node& config, Str& queueName, size_t& maxSize, bool& saveContents);

 private:
  Str _queueName;
  ProducerConsumerQueue* _queue = nullptr;
  ShutdownLevel* _level = nullptr;
  // _busy: a record was taken (or a take is under way) and the pipeline has
  // not come back for the next one yet.
  Mutex _stateMutex;
  ConditionBaseClass _stateCond;
  bool _busy = false;
  bool _stopping = false;
};
