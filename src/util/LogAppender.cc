// LogAppender: file checks, writes and rotation.
#include "util/LogAppender.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "util/LogLayout.h"
#include "util/Logger.h"

namespace {
const time_t kCheckSeconds = 5;

time_t realClock() { return time(nullptr); }

// Reused per thread so that a line costs no allocation once warm.
std::string& lineBuffer() {
  thread_local std::string buf;
  return buf;
}
}  // namespace

LogAppender::LogAppender(const std::string& name) : _name(name), _layout(&LogLayout::plain()) {}

LogAppender::~LogAppender() { closeFile(); }

void LogAppender::internalMessage(int level, const char* fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  fprintf(stderr, "%s - %s\n", Logger::levelName(level), buf);
}

void LogAppender::setup(const std::string& homeDir, bool useFiles, std::vector<Message>& messages) {
  static const std::string kHome = "${VELMOR_HOME}";
  if (_fileName.compare(0, kHome.size(), kHome) == 0) _fileName = homeDir + _fileName.substr(kHome.size());

  if (_layoutName == "BasicLayout") {
    _layout = &LogLayout::basic();
  } else if (_layoutName == "SimpleLayout") {
    _layout = &LogLayout::simple();
  } else if (_layoutName == "PatternLayout") {
    _ownLayout = std::make_unique<LogFormat>(_haveConversionPattern ? _conversionPattern : std::string("%m%n"));
    _layout = _ownLayout.get();
  } else {
    _layout = &LogLayout::plain();
  }

  char buf[1024];
  if (_fileName.empty()) {
    if (!useFiles) {
      _mode = SILENT;
    } else {
      snprintf(buf, sizeof(buf), "Appender \"%s\" has no filename, assuming stderr", _name.c_str());
      messages.push_back({Logger::WARN, buf});
      _mode = STDERR;
    }
    if (_haveMaxBackupIndex) {
      snprintf(buf, sizeof(buf), "Appender \"%s\" has maxBackupIndex set without specifying a filename, ignoring",
               _name.c_str());
      messages.push_back({Logger::WARN, buf});
    }
    if (_haveMaxFileSize) {
      snprintf(buf, sizeof(buf), "Appender \"%s\" has maxFileSize set without specifying a filename, ignoring",
               _name.c_str());
      messages.push_back({Logger::WARN, buf});
    }
    _maxBackupIndex = 0;
    _haveMaxBackupIndex = false;
    _maxFileSize = 0;
    _haveMaxFileSize = false;
    return;
  }
  if (_haveMaxBackupIndex && !_haveMaxFileSize) {
    snprintf(buf, sizeof(buf), "Appender \"%s\" has maxBackupIndex set without specifying maxFileSize, ignoring",
             _name.c_str());
    messages.push_back({Logger::WARN, buf});
    _maxBackupIndex = 0;
    _haveMaxBackupIndex = false;
  }
  _mode = FILE;
  // Open once to find problems early; the first write opens it for good.
  NOLOG_ScopedLock lock(_mutex);
  if (openFile()) closeFile();
}

bool LogAppender::openFile() {
  _fd = ::open(_fileName.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (_fd < 0) {
    internalMessage(Logger::ERROR, "Error opening \"%s\": %m", _fileName.c_str());
    return false;
  }
  struct stat st;
  if (fstat(_fd, &st) != 0) {
    internalMessage(Logger::ERROR, "Error calling fstat on \"%s\": %m", _fileName.c_str());
    closeFile();
    return false;
  }
  _dev = st.st_dev;
  _ino = st.st_ino;
  _size = static_cast<unsigned long long>(st.st_size);
  _lastCheck = _clock ? _clock() : realClock();
  return true;
}

void LogAppender::closeFile() {
  if (_fd >= 0) ::close(_fd);
  _fd = -1;
}

void LogAppender::checkFile(time_t now) {
  if (_fd < 0) return;
  if (now - _lastCheck < kCheckSeconds && now >= _lastCheck) return;
  _lastCheck = now;
  struct stat st;
  if (::stat(_fileName.c_str(), &st) != 0 || st.st_dev != _dev || st.st_ino != _ino) closeFile();
}

std::string LogAppender::backupName(unsigned suffix) const {
  if (suffix == 0) return _fileName;
  return _fileName + "." + std::to_string(suffix);
}

void LogAppender::rotate() {
  closeFile();
  // Find the first free slot; the oldest backup goes when none is free.
  unsigned suffix = 0;
  for (;; ++suffix) {
    if (::access(backupName(suffix).c_str(), F_OK) != 0) break;
    if (suffix >= _maxBackupIndex) {
      assert(suffix == _maxBackupIndex);
      ::unlink(backupName(suffix).c_str());
      break;
    }
  }
  for (unsigned i = suffix; i > 0; --i) ::rename(backupName(i - 1).c_str(), backupName(i).c_str());
  openFile();
}

void LogAppender::append(const LogFormat::Event& ev) {
  if (_mode == SILENT) return;
  std::string& line = lineBuffer();
  line.clear();
  _layout->format(line, ev);
  write(line.data(), line.size());
}

void LogAppender::write(const char* data, size_t len) {
  if (_mode == SILENT || _mode == UNSET) return;
  NOLOG_ScopedLock lock(_mutex);
  if (_mode == STDERR) {
    while (len > 0) {
      ssize_t n = ::write(2, data, len);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      data += n;
      len -= static_cast<size_t>(n);
    }
    return;
  }
  checkFile(_clock ? _clock() : realClock());
  if (_fd < 0 && !openFile()) return;  // message dropped
  size_t total = len;
  while (len > 0) {
    ssize_t n = ::write(_fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      internalMessage(Logger::CRIT, "Error writing to \"%s\": %m", _fileName.c_str());
      closeFile();
      return;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  _size += total;
  if (_maxFileSize >= 1 && _size > _maxFileSize) rotate();
}
