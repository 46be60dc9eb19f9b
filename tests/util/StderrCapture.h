// Test helpers shared by the logging tests: reading a whole file, and
// redirecting descriptor 2 into a file while a scope is alive.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

inline std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Redirects fd 2 into a file while alive; text() gives what was written.
class StderrCapture {
 public:
  explicit StderrCapture(const std::string& path) : _path(path) {
    fflush(stderr);
    _saved = dup(2);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
  }
  ~StderrCapture() { restore(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  std::string text() {
    restore();
    return readAll(_path);
  }

 private:
  void restore() {
    if (_saved < 0) return;
    fflush(stderr);
    dup2(_saved, 2);
    close(_saved);
    _saved = -1;
  }
  std::string _path;
  int _saved = -1;
};
