// LogChannel: a named log category with a level and its appenders.
//
// A message passes when its level is at or above the channel's; it is then
// handed to every appender. The channel set and each channel's appenders are
// fixed once the configuration is installed, so write() takes no lock of
// its own (each appender serialises its writes).
//
// Ownership: LogConfig owns channels and appenders; Loggers point at a
// channel for the rest of the process once initialize() resolved them.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "util/LogFormat.h"

class LogAppender;

class LogChannel {
 public:
  LogChannel(const std::string& name, int level, const std::vector<LogAppender*>& appenders)
      : _name(name), _level(level), _appenders(appenders) {}

  const std::string& getName() const { return _name; }
  // The level may change at run time (Logger::setChannelLevel) while other
  // threads log: it is atomic.
  int getLevel() const { return _level.load(std::memory_order_relaxed); }
  void setLevel(int level) { _level.store(level, std::memory_order_relaxed); }
  const std::vector<LogAppender*>& getAppenders() const { return _appenders; }
  void setAppenders(const std::vector<LogAppender*>& a) { _appenders = a; }

  bool isEnabled(int level) const { return level >= getLevel(); }

  // Writes one message (already printf-expanded) to every appender.
  void write(int level, const char* message, size_t length, const struct timespec& when) const;

 private:
  std::string _name;
  std::atomic<int> _level;
  std::vector<LogAppender*> _appenders;
};
