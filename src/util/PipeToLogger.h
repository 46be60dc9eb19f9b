// PipeToLogger: logs what a child process writes on a pipe (its stderr),
// line by line, from an EventLoop.
//
// Reads of 1024 bytes; each complete line goes out as "%s %s" (prefix,
// text) through the given Logger method. A partial line waits in a buffer
// and a 10000 ms timer flushes it; end of file flushes what is left. A read
// error logs "%s: error reading from process's stderr: %m" and ends it.
//
// Ownership: the object owns the read descriptor and closes it when it has
// finished (isFinished()); the creator owns the object and deletes it after
// it has finished or after removing it from the loop (stop()).
// Threads: the loop's thread only.
#pragma once

#include <string>

#include "util/Logger.h"
#include "util/PolledFd.h"
#include "util/Timeout.h"

class PipeToLogger : public PolledFd {
 public:
  typedef void (Logger::*Method)(const char* fmt, ...);
  static constexpr unsigned long long kFlushMs = 10000;

  PipeToLogger(Logger& logger, const char* prefix, Method method);
  ~PipeToLogger() override;

  // Adds the descriptor to the loop. REQUIRES: on the loop's thread.
  void start(EventLoop* loop, PollableDescriptor fd);
  // Removes it early (flushing what is buffered) and closes it.
  void stop();
  bool isFinished() const { return _finished; }

  bool when_events(PollableDescriptor fd) override;
  void after_eof() override;
  void flush();

 private:
  class FlushTimer : public OneShotTimeout {
   public:
    explicit FlushTimer(PipeToLogger* o) : _o(o) {}
    void when_expired() override { _o->flush(); }

   private:
    PipeToLogger* _o;
  };
  void finish();

  Logger& _logger;
  std::string _prefix;
  Method _method;
  std::string _partial;
  FlushTimer _timer;
  EventLoop* _loop = nullptr;
  int _fd = -1;
  bool _finished = false;
};
