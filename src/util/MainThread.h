// MainThread: the Thread object of the thread that runs main().
//
// DESIGN. It must be made first, before any other Thread: its constructor
// prepares the attribute (2 MB stack) with which every later Thread is
// created, and adopts the calling thread instead of creating a new one. It
// is a process singleton: a second one throws "Main Thread created twice!".
// A server derives from it to own its main event loop and reaps finished
// threads there; this base class keeps a list of threads handed to
// joinAndDeleteMe() and reaps them in reapFinished() and its destructor.
//
// Threads: construct and destroy on the thread that runs main(); instance()
// and joinAndDeleteMe() from any thread.
#pragma once

#include <pthread.h>

#include <vector>

#include "util/Mutex.h"
#include "util/Thread.h"

class MainThread : public Thread {
 public:
  MainThread();
  ~MainThread() override;

  // Runs on the calling thread; the base has nothing to do.
  void main() override {}

  static MainThread* instance();

  // Takes a finished (or finishing) thread to be joined and deleted away
  // from its own thread. Usually called by the thread itself at the end of
  // main(). A derived class reaps on its event loop instead.
  virtual void joinAndDeleteMe(Thread* t);
  // Joins and deletes every thread handed to joinAndDeleteMe() so far.
  void reapFinished();

  // The attribute for new system threads. REQUIRES: a MainThread exists.
  static const pthread_attr_t* threadAttributes();

 private:
  Mutex _reapMutex;
  std::vector<Thread*> _toReap;
};
