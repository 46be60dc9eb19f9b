// ActiveThreads: the count of running Thread objects' system threads, and
// the thread-specific pointer from a system thread to its Thread.
//
// The instance is created with the first thread (the MainThread, in
// practice) and destroyed with the last one. All state is guarded by one
// static mutex. Any thread may call these; they never log.
#pragma once

#include <pthread.h>

class Thread;

class ActiveThreads {
 public:
  // One more thread; creates the instance on need.
  static void add();
  // One thread fewer; destroys the instance when none is left.
  static void remove();
  static unsigned count();

  // The pointer for the calling system thread (null when unset).
  static void setCurrent(Thread* t);
  static Thread* getCurrent();

 private:
  ActiveThreads();
  ~ActiveThreads();

  unsigned _count = 0;
  pthread_key_t _key;
};
