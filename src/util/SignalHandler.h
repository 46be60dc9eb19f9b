// SignalHandler: the process-wide table of MSignalHandler objects by signal
// number; several may be registered for one signal, and handleSignal() calls
// each of them, in signal-number order, then registration order.
//
// routeToEventLoop(loop, sig) installs a process signal handler that only
// writes the signal number to a pipe the loop watches; the registered
// handlers then run on the loop's thread, outside signal context.
//
// Threads: any thread; the table is under a mutex, the handlers are called
// outside it. REQUIRES: registered handlers outlive their registration.
#pragma once

#include <map>
#include <vector>

#include "util/Mutex.h"

class EventLoop;
class MSignalHandler;

class SignalHandler {
 public:
  static SignalHandler& instance();

  void registerSignalHandler(MSignalHandler const* h, int sig);
  void unregisterSignalHandler(MSignalHandler const* h, int sig);
  void handleSignal(int sig);
  // SIGINT to this process.
  static void sendShutdownSignal();
  // REQUIRES: on the loop's thread (or before it runs); once per loop.
  void routeToEventLoop(EventLoop* loop, int sig);
  // Restores the default disposition of the routed signals and takes the
  // pipe off its loop. REQUIRES: on the loop's thread, or it is not running.
  void unrouteAll();

 private:
  SignalHandler() = default;
  Mutex _mutex;
  std::map<int, std::vector<MSignalHandler const*>> _handlers;
};
