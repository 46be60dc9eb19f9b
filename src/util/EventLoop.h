// EventLoop: the poll-based reactor that runs descriptors, timers and work
// handed over from other threads.
//
// DESIGN. One thread runs run(). Descriptors sit in two parallel arrays
// (pollfd and PolledFd*), grown by doubling; each PolledFd points at its
// pollfd slot. Timers sit in a complete binary min-heap on expiry, linked by
// the Timeout objects' own pointers, so adding and removing never allocates.
// Each pass runs every timer due within the next 170 ms (batching near
// timers saves wake-ups), polls until the next timer, and serves the ready
// descriptors. A clock that jumps is corrected by checkClockSkew(): after a
// jump back every timer is pulled in to at most its interval from now, after
// a jump forward beyond the poll delay plus 5 s every timer is pushed by the
// jump, so no timer fires early or an hour late. Other threads hand work over
// as InThreadActors on a list guarded by the loop's mutex, and wake the loop
// through a self pipe; the queued actors run right after the service walk
// in which the pipe was drained, so they may change descriptors. The mutex
// guards only that list, the notify pointer and the running thread's token. On leaving run() the remaining actors run
// and every zero-length timeout still queued runs, so deferred work (such as
// PolledFdManager's) is never lost at shutdown.
//
// Threads: run(), add/remove of timers and descriptors on the loop's thread
// only (or any single thread while the loop is not running). terminate(),
// internal_runInThread(), runInThreadOrFail(), addFromAnywhere() and
// removeFromAnywhere() from any thread.
#pragma once

#include <poll.h>

#include "util/EventLoopClock.h"
#include "util/Mutex.h"
#include "util/PollableDescriptor.h"
#include "util/ThreadToken.h"
#include "util/Timeout.h"

class CallbackAfterEventService;
class InThreadActor;
class InThreadActorNotify;
class PolledFd;

class EventLoop {
 public:
  // Timers due within this window of now run in the same pass.
  static constexpr int kBatchMs = 170;
  // A forward clock jump bigger than the poll delay plus this is corrected.
  static constexpr int kForwardSkewMs = 5000;

  explicit EventLoop(EventLoopClock* clock = EventLoopClock::system());
  virtual ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Loops until terminate(); returns its exit code. Throws EventLoopException
  // "error from EventLoop poll" on a poll failure.
  int run();
  // Stops the loop with this exit code; from any thread. On the loop's
  // thread it only sets the flag.
  void terminate(int exitCode);
  bool isRunning();

  // --- timers (loop thread) ---
  void add(Timeout* t, unsigned long long ms);
  void add(Timeout* t, const Timeval& now, unsigned long long ms);
  // Removing an inactive timer does nothing.
  void remove(Timeout* t);
  void modifyTimeoutInterval(Timeout* t, unsigned long long ms);
  // False when the loop is not running.
  bool addFromAnywhere(CallbackAfterEventService* cb);
  // Blocks until the timer is out of the heap.
  void removeFromAnywhere(Timeout* t);
  unsigned int timeoutCount() const { return _timeoutCount; }

  // --- descriptors (loop thread, never inside the service walk) ---
  void add(PolledFd* p, PollableDescriptor fd);
  void add(PolledFd* p, PollableDescriptor fd, short events);
  void removeActivePolledFd(PolledFd* p);
  unsigned int polledFdCount() const { return _pfdCount; }

  // --- work from other threads ---
  // Runs the actor on the loop's thread (waiting for it with `wait`); when
  // the loop is not running, runs it right here.
  void internal_runInThread(InThreadActor* actor, bool wait);
  // As above, but returns 0 without running it when the loop is not running.
  int runInThreadOrFail(InThreadActor* actor, bool wait = true);
  void assertInThread();

  // --- pieces of the pass, public for tests ---
  void runExpiredTimeouts(const Timeval& now);
  // -1 with no timers, 0 when the first is due, else ms until it.
  int msecUntilNextTimeout(const Timeval& now) const;
  void checkClockSkew(const Timeval& before, const Timeval& after, int delayMs);
  Timeval now() { return _clock->now(); }

 private:
  friend class InThreadActorNotify;
  class ExitCodeSetter;
  class RemoveTimeoutFromAnywhereActor;

  // heap
  void heapInsert(Timeout* t);
  void heapRemove(Timeout* t);
  Timeout* nodeAt(unsigned int pos) const;
  void restoreOrder(Timeout* t);
  void swapWithChild(Timeout* p, int which);
  // Unlinks the whole heap into a list chained by child[0].
  Timeout* detachAll();
  static void collect(Timeout* n, Timeout*& list);
  void recursiveAddToAllTimeouts(Timeout* n, long long usec);
  void runZeroLengthTimeoutsAtExit();
  void listPush(Timeout*& head, Timeout* t, int state);
  void listUnlink(Timeout*& head, Timeout* t);

  void growArrays();
  void removeSlot(unsigned int i);
  void drainActors(InThreadActor* list);

  EventLoopClock* _clock;

  unsigned int _timeoutCount = 0;
  unsigned int _timeoutSlotBit = 0;
  Timeout* _timeouts = nullptr;
  Timeout* _expiredHead = nullptr;
  Timeout* _requeueHead = nullptr;
  Timeout* _currently_running_timeout = nullptr;
  bool _currentRemoved = false;

  bool _exit = false;
  int _exitCode = 0;

  unsigned int _pfdCount = 0;
  unsigned int _pfdMax = 0;
  pollfd* _pfd = nullptr;
  PolledFd** _pev = nullptr;

  Mutex _mutex;
  InThreadActorNotify* _notify = nullptr;
  ThreadToken _ita_thread;
  InThreadActor* _actorHead = nullptr;
  InThreadActor* _actorTail = nullptr;

  bool _in_service_loop = false;
  bool _actorsTriggered = false;
  bool _in_poll = false;
};
