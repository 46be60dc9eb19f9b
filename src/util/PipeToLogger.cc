#include "util/PipeToLogger.h"

#include <unistd.h>

#include <cerrno>

#include "util/EventLoop.h"

PipeToLogger::PipeToLogger(Logger& logger, const char* prefix, Method method)
    : _logger(logger), _prefix(prefix), _method(method), _timer(this) {}

PipeToLogger::~PipeToLogger() {
  if (isActive() || _fd >= 0) stop();
}

void PipeToLogger::start(EventLoop* loop, PollableDescriptor fd) {
  _loop = loop;
  _fd = fd.get();
  fd.setNonblock(true);
  loop->add(this, fd);
}

void PipeToLogger::stop() {
  if (isActive()) _loop->removeActivePolledFd(this);
  finish();
}

void PipeToLogger::flush() {
  if (_timer.isActive()) _loop->remove(&_timer);
  if (_partial.empty()) return;
  (_logger.*_method)("%s %s", _prefix.c_str(), _partial.c_str());
  _partial.clear();
}

bool PipeToLogger::when_events(PollableDescriptor fd) {
  char buf[1024];
  ssize_t n;
  do {
    n = ::read(fd.get(), buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    if (errno == EAGAIN) return false;
    _logger.error("%s: error reading from process's stderr: %m", _prefix.c_str());
    return true;
  }
  if (n == 0) return true;
  size_t start = 0;
  for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
    if (buf[i] != '\n') continue;
    if (_partial.empty()) {
      std::string line(buf + start, i - start);
      (_logger.*_method)("%s %s", _prefix.c_str(), line.c_str());
    } else {
      _partial.append(buf + start, i - start);
      (_logger.*_method)("%s %s", _prefix.c_str(), _partial.c_str());
      _partial.clear();
    }
    start = i + 1;
  }
  _partial.append(buf + start, static_cast<size_t>(n) - start);
  if (!_partial.empty() && !_timer.isActive()) _loop->add(&_timer, kFlushMs);
  if (_partial.empty() && _timer.isActive()) _loop->remove(&_timer);
  return false;
}

void PipeToLogger::after_eof() { finish(); }

void PipeToLogger::finish() {
  if (_loop != nullptr) flush();
  if (_fd >= 0) ::close(_fd);
  _fd = -1;
  _finished = true;
}
