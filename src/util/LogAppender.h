// LogAppender: one destination of log lines (a file, stderr, or nothing).
//
// DESIGN. The configuration fills the attributes, then setup() decides the
// destination once. Writes are serialised by the appender's Mutex, taken
// through NOLOG_lock. A file is opened on first write (O_APPEND). Before
// each write the appender checks the file: when 5 seconds or more have
// passed since the last check, or the clock went back, it stats the path and
// compares device and inode with the open file; a file that is gone or
// replaced is closed, and the write reopens (recreates) it. After a write
// the size is added to a running count; with maxFileSize at 1 or more and
// the count above it the file rotates in the writing thread: name.1 is the
// newest backup, name.<maxBackupIndex> the oldest, beyond which files go.
//
// The appender's own failures ("Error opening ...", "Error writing to ...")
// cannot go through the log facility (its lock is held, and the file is the
// problem), so they go to stderr as "LEVEL - message\n".
//
// Ownership: LogConfig owns its appenders; LogChannels point at them. Any
// thread may call append().
#pragma once

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "util/LogFormat.h"
#include "util/Mutex.h"

class LogAppender {
 public:
  enum Mode { UNSET, SILENT, STDERR, FILE };

  // A message produced while setting up, for the caller to log.
  struct Message {
    int level;
    std::string text;
  };

  explicit LogAppender(const std::string& name);
  ~LogAppender();
  LogAppender(const LogAppender&) = delete;
  LogAppender& operator=(const LogAppender&) = delete;

  // ---- Attributes, set before setup() ----
  const std::string& getName() const { return _name; }
  void setFileName(const std::string& f) { _fileName = f; }
  const std::string& getFileName() const { return _fileName; }
  void setMaxFileSize(unsigned long long n) { _maxFileSize = n; _haveMaxFileSize = true; }
  unsigned long long getMaxFileSize() const { return _maxFileSize; }
  void setMaxBackupIndex(unsigned n) { _maxBackupIndex = n; _haveMaxBackupIndex = true; }
  unsigned getMaxBackupIndex() const { return _maxBackupIndex; }
  // "BasicLayout", "SimpleLayout" or "PatternLayout".
  void setLayoutName(const std::string& n) { _layoutName = n; }
  const std::string& getLayoutName() const { return _layoutName; }
  void setConversionPattern(const std::string& p) { _conversionPattern = p; _haveConversionPattern = true; }

  // Decides the destination and the layout. A file name that begins with
  // "${VELMOR_HOME}" gets homeDir instead. Warnings are added to `messages`.
  void setup(const std::string& homeDir, bool useFiles, std::vector<Message>& messages);
  Mode getMode() const { return _mode; }
  const LogFormat& layout() const { return *_layout; }

  // Formats and writes one line.
  void append(const LogFormat::Event& ev);
  // Writes bytes as they are (one line, already formatted).
  void write(const char* data, size_t len);

  // The clock of the file checks (seconds); tests move it by hand.
  void setClock(time_t (*clock)()) { _clock = clock; }

 private:
  bool openFile();  // REQUIRES: _mutex held
  void closeFile();
  void checkFile(time_t now);
  void rotate();
  std::string backupName(unsigned suffix) const;
  static void internalMessage(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  std::string _name;
  std::string _fileName;
  unsigned long long _maxFileSize = 0;
  bool _haveMaxFileSize = false;
  unsigned _maxBackupIndex = 0;
  bool _haveMaxBackupIndex = false;
  std::string _layoutName;
  std::string _conversionPattern;
  bool _haveConversionPattern = false;

  Mode _mode = UNSET;
  const LogFormat* _layout;
  std::unique_ptr<LogFormat> _ownLayout;  // PatternLayout

  Mutex _mutex;  // guards everything below; NOLOG_lock only
  int _fd = -1;
  dev_t _dev = 0;
  ino_t _ino = 0;
  unsigned long long _size = 0;
  time_t _lastCheck = 0;
  time_t (*_clock)() = nullptr;
};
