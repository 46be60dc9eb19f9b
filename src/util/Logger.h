// Logger: a named handle on one log channel.
//
// Loggers are usually static objects, built before the log configuration is
// read: each chains itself on a pending list, and Logger::initialize() reads
// the configuration and resolves every pending logger to its channel (the
// channel named like the logger, made from the root channel on need).
// A message sent before initialize() goes to standard error as
// "LEVEL - message\n", whatever its level.
//
//   static Logger gLogger("loader");
//   gLogger.warn("cannot read %s: %m", path.c_str());
//
// Every message method keeps errno unchanged, and expands "%m" in the format
// to the text of errno at the call before printf runs. The forms taking a
// std::string (or Str) and a std::exception log the text as it is.
//
// Threads: any thread may log through any Logger at any time. initialize()
// runs once per process (asserted), usually early in main. A Logger must
// outlive its uses; the configuration it resolves to lives until exit.
#pragma once

#include <atomic>
#include <cstdarg>
#include <exception>
#include <string>

class LogChannel;

class Logger {
 public:
  // Levels by number; a message passes when its level is at or above its
  // channel's.
  enum Level { DEBUG = 0, INFO, NOTICE, WARN, ERROR, CRIT, ALERT, FATAL, EMERG };

  explicit Logger(const char* name);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Reads the log configuration file and installs it. homeDir replaces
  // "${VELMOR_HOME}" at the start of file names; with useFiles false an
  // appender without a file name is silenced instead of writing to stderr.
  // Returns false when the file cannot be opened or has an unterminated
  // comment (the messages then go to stderr). REQUIRES: called once.
  static bool initialize(const std::string& configFile, const std::string& homeDir, bool useFiles);
  static bool isInitialized();

  // Changes the level of the channel `name` at run time; an empty name is
  // the root (with every channel that has no "category." line of its own).
  // False before initialize() installed a configuration.
  static bool setChannelLevel(const std::string& name, int level);

  // "DEBUG" ... "EMERG"; "???" for any other value.
  static const char* levelName(int level);

  const char* getName() const { return _name.c_str(); }
  // True if a message of this level would be written.
  bool isEnabled(Level level) const;
  bool isDebugEnabled() const { return isEnabled(DEBUG); }

  void debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void notice(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void warn(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void crit(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void fatal(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  void debug(const std::string& msg) { logText(DEBUG, msg); }
  void info(const std::string& msg) { logText(INFO, msg); }
  void notice(const std::string& msg) { logText(NOTICE, msg); }
  void warn(const std::string& msg) { logText(WARN, msg); }
  void error(const std::string& msg) { logText(ERROR, msg); }
  void crit(const std::string& msg) { logText(CRIT, msg); }
  void fatal(const std::string& msg) { logText(FATAL, msg); }

  void debug(const std::exception& e) { logText(DEBUG, e.what()); }
  void info(const std::exception& e) { logText(INFO, e.what()); }
  void notice(const std::exception& e) { logText(NOTICE, e.what()); }
  void warn(const std::exception& e) { logText(WARN, e.what()); }
  void error(const std::exception& e) { logText(ERROR, e.what()); }
  void crit(const std::exception& e) { logText(CRIT, e.what()); }
  void fatal(const std::exception& e) { logText(FATAL, e.what()); }

  void log(Level level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void vlog(Level level, const char* fmt, va_list ap);
  // The text as it is, no format processing.
  void logText(Level level, const std::string& msg);

 private:
  friend class LogRegistry;

  LogChannel* channel() const { return _channel.load(std::memory_order_acquire); }

  std::string _name;
  std::atomic<LogChannel*> _channel{nullptr};
  Logger* _nextPending = nullptr;  // link on the pending list before initialize()
};
