// Thread: a system thread with a name, created stopped.
//
// DESIGN. The constructor creates the system thread at once (2 MB stack, the
// attribute prepared by MainThread), but the new thread blocks on a gate
// until go() is called; only then does it run main(). A Thread that is
// never started is released by joinEvenIfUnstarted() (or its destructor):
// the system thread then returns without entering main(), so building and
// dropping an unused Thread costs nothing but the creation. The start and
// join flags of every Thread are guarded by one static mutex, whose
// condition is the gate. ActiveThreads counts the system threads and holds
// the thread-specific pointer behind current().
//
// Ownership: the creator owns the object. A Thread must be joined (join(),
// joinEvenIfUnstarted(), or the destructor, which waits) before its memory
// goes; the derived class should join in its own destructor if main() uses
// its members. A finished thread that must reap itself hands itself to
// MainThread::joinAndDeleteMe(), which joins and deletes it from another
// thread through a JoinHelper.
//
// Threads: go(), join() and joinEvenIfUnstarted() may be called from any
// thread but the one they concern, go() and join() once each.
#pragma once

#include <pthread.h>

#include <string>

class Thread {
 public:
  virtual ~Thread();
  virtual void main() = 0;

  // Formats the name (printf) and creates the system thread. Throws
  // PthreadException "Thread created before main thread!" when no MainThread
  // exists yet, and when the system thread cannot be created.
  explicit Thread(const char* nameFormat, ...) __attribute__((format(printf, 2, 3)));
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Lets the thread run main(). REQUIRES: called once.
  void go();
  // Waits for main() to return. REQUIRES: go() was called; called once.
  void join();
  // Joins; a thread never started is released first and returns without
  // running main(). Safe to call when already joined.
  void joinEvenIfUnstarted();

  const char* getName() const { return _name.c_str(); }
  bool isCurrent() const;
  bool isStarted() const;

  // The calling thread's object, or null for a thread no Thread made.
  static Thread* current();
  // Its name, or "UNKNOWN-THREAD".
  static const char* currentName();

  // A process-wide flag: the main thread has begun to tear down.
  static void mainThreadDying();
  static bool mainThreadIsDying();

  // Joins and deletes one finished Thread on behalf of the thread that runs
  // run() (the main event loop), since a thread cannot join itself.
  class JoinHelper {
   public:
    explicit JoinHelper(Thread* t) : _thread(t) {}
    // Joins and deletes the thread if run() has not done so.
    ~JoinHelper();
    JoinHelper(const JoinHelper&) = delete;
    JoinHelper& operator=(const JoinHelper&) = delete;
    // REQUIRES: not called by the thread being joined.
    void run();

   private:
    Thread* _thread;
  };

 protected:
  // For MainThread: adopts the calling thread instead of creating one.
  struct AdoptCallingThread {};
  Thread(AdoptCallingThread, const char* name);

 private:
  static void* trampoline(void* arg);
  void waitForGate();

  std::string _name;
  pthread_t _tid{};
  bool _adopted = false;     // the MainThread: no system thread of our own
  bool _started = false;     // go() was called
  bool _released = false;    // released without go(): return at once
  bool _joined = false;      // join() or joinEvenIfUnstarted() done
  bool _joinStarted = false; // someone is inside pthread_join
};
