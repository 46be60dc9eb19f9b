#include "framework/QueueServiceThread.h"

#include "util/Logger.h"

static Logger gLogger("QueueServiceThread");

QueueServiceThread::QueueServiceThread(ProducerConsumerQueue* from, ProducerConsumerQueue* to)
    : Thread("QueueServiceThread"), _from(from), _to(to) {}

QueueServiceThread::~QueueServiceThread() {
  stop();
  joinEvenIfUnstarted();
}

void QueueServiceThread::main() {
  while (!_stop) {
    ProducerConsumerQueue::Record record;
    if (!_from->remove(record, 1)) continue;
    bool moved = false;
    while (!_stop && !(moved = _to->insert(record, 1))) {
    }
    if (!moved) moved = _to->insertFromSameThread(record);
    if (moved) {
      ++_moved;
    } else if (!_from->insertFromSameThread(record)) {
      gLogger.warn("Stopping with one record that neither queue would take; it is lost");
    }
  }
}
