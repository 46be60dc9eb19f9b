// PolicyServiceThread: the thread of a DatabasePartitionPolicy that calls
// service(time(NULL)) about once a second until it is stopped or the
// policy's shutdown has completed.
//
// DESIGN. A condition with a one-second timed wait stands in for the sleep,
// so stop() wakes the thread at once; the tick itself runs without the
// thread's mutex held.
#pragma once

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Thread.h"

class DatabasePartitionPolicy;

class PolicyServiceThread : public Thread {
 public:
  explicit PolicyServiceThread(DatabasePartitionPolicy& policy);
  ~PolicyServiceThread() override;
  void main() override;
  // Asks the thread to end and joins it.
  void stop();

 private:
  DatabasePartitionPolicy& _policy;
  Mutex _mutex;
  ConditionBaseClass _cond;
  bool _stop = false;
};
