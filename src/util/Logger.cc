// Logger: the pending list, initialize(), and the message path.
//
// DESIGN. Process-wide state lives in LogRegistry below: the list of
// loggers built before initialize(), the installed LogConfig (never freed:
// loggers point into it until exit), and one pthread mutex over both. A
// Logger's channel pointer is atomic, so the message path takes no lock of
// the registry; the only lock on a message is its appenders' own.
#include "util/Logger.h"

#include <pthread.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "util/LogChannel.h"
#include "util/LogConfig.h"
#include "util/LogFormat.h"

namespace {
const char* const kLevelNames[] = {"DEBUG", "INFO", "NOTICE", "WARN", "ERROR",
                                   "CRIT", "ALERT", "FATAL", "EMERG"};

// Before initialize() every message goes here, as "LEVEL - message\n", in
// one write so that lines of different threads do not mix.
void writeToStderr(int level, const char* msg, size_t len) {
  std::string line;
  line.reserve(len + 16);
  line += Logger::levelName(level);
  line += " - ";
  line.append(msg, len);
  line += '\n';
  fwrite(line.data(), 1, line.size(), stderr);
}

// Copies fmt with every "%m" replaced by the text of `err` ("%%" kept, and
// any "%" in the error text doubled so printf prints it as it is). Returns
// false when the format has no "%m" (nothing copied).
bool expandErrno(const char* fmt, int err, std::string& out) {
  const char* p = fmt;
  bool found = false;
  while ((p = strchr(p, '%')) != nullptr) {
    if (p[1] == '%') {
      p += 2;
    } else if (p[1] == 'm') {
      found = true;
      break;
    } else if (p[1] == '\0') {
      break;
    } else {
      ++p;
    }
  }
  if (!found) return false;
  char errbuf[256];
  const char* text = strerror_r(err, errbuf, sizeof(errbuf));
  out.clear();
  for (p = fmt; *p; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      out += "%%";
      ++p;
    } else if (p[0] == '%' && p[1] == 'm') {
      for (const char* t = text; *t; ++t) {
        if (*t == '%') out += '%';
        out += *t;
      }
      ++p;
    } else {
      out += *p;
    }
  }
  return true;
}
}  // namespace

class LogRegistry {
 public:
  static void lock() { pthread_mutex_lock(&_mutex); }
  static void unlock() { pthread_mutex_unlock(&_mutex); }

  // All under lock().
  static void addPending(Logger* l) {
    l->_nextPending = _pending;
    _pending = l;
  }
  static void removePending(Logger* l) {
    for (Logger** pp = &_pending; *pp; pp = &(*pp)->_nextPending) {
      if (*pp == l) {
        *pp = l->_nextPending;
        l->_nextPending = nullptr;
        return;
      }
    }
  }
  static void resolve(Logger* l) { l->_channel.store(_config->channelFor(l->_name), std::memory_order_release); }
  static void install(LogConfig* c) {
    _config = c;
    for (Logger* l = _pending; l;) {
      Logger* next = l->_nextPending;
      l->_nextPending = nullptr;
      resolve(l);
      l = next;
    }
    _pending = nullptr;
  }

  static pthread_mutex_t _mutex;
  static Logger* _pending;
  static LogConfig* _config;
  static bool _initialized;
};

pthread_mutex_t LogRegistry::_mutex = PTHREAD_MUTEX_INITIALIZER;
Logger* LogRegistry::_pending = nullptr;
LogConfig* LogRegistry::_config = nullptr;
bool LogRegistry::_initialized = false;

Logger::Logger(const char* name) : _name(name ? name : "") {
  LogFormat::startTime();
  LogRegistry::lock();
  if (LogRegistry::_config != nullptr) {
    LogRegistry::resolve(this);
  } else {
    LogRegistry::addPending(this);
  }
  LogRegistry::unlock();
}

Logger::~Logger() {
  LogRegistry::lock();
  LogRegistry::removePending(this);
  LogRegistry::unlock();
}

bool Logger::initialize(const std::string& configFile, const std::string& homeDir, bool useFiles) {
  LogRegistry::lock();
  assert(!LogRegistry::_initialized);
  LogRegistry::_initialized = true;
  LogRegistry::unlock();

  int savedErrno = errno;
  LogConfig* config = new LogConfig();
  bool ok = config->readFile(configFile);
  if (ok) {
    config->buildChannels();
    config->setupAppenders(homeDir, useFiles);
  }
  if (!ok) {
    // Nothing is installed: the loggers keep writing to stderr.
    for (const LogConfig::Message& m : config->messages()) writeToStderr(m.level, m.text.data(), m.text.size());
    delete config;
    errno = savedErrno;
    return false;
  }
  LogRegistry::lock();
  LogRegistry::install(config);
  LogRegistry::unlock();

  static Logger gLogger("Logger");
  for (const LogConfig::Message& m : config->messages()) gLogger.logText(static_cast<Level>(m.level), m.text);
  errno = savedErrno;
  return true;
}

bool Logger::isInitialized() {
  LogRegistry::lock();
  bool r = LogRegistry::_config != nullptr;
  LogRegistry::unlock();
  return r;
}

bool Logger::setChannelLevel(const std::string& name, int level) {
  LogRegistry::lock();
  LogConfig* config = LogRegistry::_config;
  if (config != nullptr) config->setChannelLevel(name, level);
  LogRegistry::unlock();
  return config != nullptr;
}

const char* Logger::levelName(int level) {
  if (level < 0 || level > EMERG) return "???";
  return kLevelNames[level];
}

bool Logger::isEnabled(Level level) const {
  LogChannel* ch = channel();
  return ch == nullptr || ch->isEnabled(level);
}

#define VELMOR_LOGGER_METHOD(method, LEVEL) \
  void Logger::method(const char* fmt, ...) {  \
    va_list ap;                              \
    va_start(ap, fmt);                       \
    vlog(LEVEL, fmt, ap);                    \
    va_end(ap);                              \
  }
VELMOR_LOGGER_METHOD(debug, DEBUG)
VELMOR_LOGGER_METHOD(info, INFO)
VELMOR_LOGGER_METHOD(notice, NOTICE)
VELMOR_LOGGER_METHOD(warn, WARN)
VELMOR_LOGGER_METHOD(error, ERROR)
VELMOR_LOGGER_METHOD(crit, CRIT)
VELMOR_LOGGER_METHOD(fatal, FATAL)
#undef VELMOR_LOGGER_METHOD

void Logger::log(Level level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vlog(level, fmt, ap);
  va_end(ap);
}

void Logger::vlog(Level level, const char* fmt, va_list ap) {
  int savedErrno = errno;
  LogChannel* ch = channel();
  if (ch != nullptr && !ch->isEnabled(level)) return;

  thread_local std::string expanded;
  if (expandErrno(fmt, savedErrno, expanded)) fmt = expanded.c_str();

  char stackBuf[1024];
  const char* msg = stackBuf;
  std::string heapBuf;
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(stackBuf, sizeof(stackBuf), fmt, copy);
  va_end(copy);
  if (n < 0) {
    msg = fmt;
    n = static_cast<int>(strlen(fmt));
  } else if (static_cast<size_t>(n) >= sizeof(stackBuf)) {
    heapBuf.resize(static_cast<size_t>(n));
    vsnprintf(heapBuf.data(), heapBuf.size() + 1, fmt, ap);
    msg = heapBuf.data();
  }

  if (ch == nullptr) {
    writeToStderr(level, msg, static_cast<size_t>(n));
  } else {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    ch->write(level, msg, static_cast<size_t>(n), now);
  }
  errno = savedErrno;
}

void Logger::logText(Level level, const std::string& msg) {
  int savedErrno = errno;
  LogChannel* ch = channel();
  if (ch == nullptr) {
    writeToStderr(level, msg.data(), msg.size());
  } else if (ch->isEnabled(level)) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    ch->write(level, msg.data(), msg.size(), now);
  }
  errno = savedErrno;
}
