// MSignalHandler: something that reacts to a process signal, called by
// SignalHandler on the thread that dispatches (the event loop's, when the
// signal was routed there with SignalHandler::routeToEventLoop).
#pragma once

class MSignalHandler {
 public:
  virtual ~MSignalHandler() = default;
  virtual void handleSignal(int sig) const = 0;
};
