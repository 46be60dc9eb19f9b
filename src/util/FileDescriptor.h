// FileDescriptor: a bare integer file descriptor with one member per system
// call made on it. It does not own the descriptor: copying copies the number
// and nothing closes it implicitly (see ScopedFileDescriptor for that).
// Failure is told by return values (-1, false, an invalid descriptor) with
// errno set by the system call; nothing here throws or logs.
//
// A FileDescriptor may be used from any thread, with the usual caveat that
// concurrent reads/writes on one descriptor share its file offset.
#ifndef VELMOR_UTIL_FILEDESCRIPTOR_H
#define VELMOR_UTIL_FILEDESCRIPTOR_H

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

#include "util/Str.h"

class FileDescriptor {
 public:
  constexpr FileDescriptor() : _fd(-1) {}
  constexpr explicit FileDescriptor(int fd) : _fd(fd) {}

  int get() const { return _fd; }
  bool isValid() const { return _fd >= 0; }

  // close(2); the object becomes invalid even if close fails.
  bool close();
  // Gives up the number without closing it; the object becomes invalid.
  int release() {
    int fd = _fd;
    _fd = -1;
    return fd;
  }

  // Single system calls, retried on EINTR; results as the system call's.
  ssize_t read(void* buf, size_t len) const;
  ssize_t write(const void* buf, size_t len) const;
  ssize_t writev(const struct iovec* iov, int iovcnt) const;
  ssize_t pread(void* buf, size_t len, off_t offset) const;
  ssize_t pwrite(const void* buf, size_t len, off_t offset) const;
  // Loops over short transfers. readFully fails at end of file before `len`.
  bool readFully(void* buf, size_t len) const;
  bool writeFully(const void* buf, size_t len) const;
  bool writeFully(const StrSegment& text) const;
  // Reads from the current offset to end of file, appending to `out`.
  bool readAll(Str& out) const;

  bool seek_set(off_t offset) const;
  // Moves to end of file and returns the offset there, or -1.
  off_t seekEof() const;
  // The current offset, or -1.
  off_t curPos() const;
  bool sync() const;
  bool stat(struct stat& st) const;
  bool isReg() const;
  bool isDir() const;
  bool setCloseOnExec(bool on = true) const;
  bool setNonBlocking(bool on = true) const;
  // printf to the descriptor; false unless all of it was written.
  bool format(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));

  // If fd is 0, 1 or 2, moves it to the lowest free number >= 3 (close on
  // exec) and closes the original; returns the new number (or -1 on
  // failure, with the original closed). Other values are returned as is.
  static int moveAboveStdio(int fd);

  friend bool operator==(const FileDescriptor& a, const FileDescriptor& b) { return a._fd == b._fd; }

 protected:
  int _fd;
};

#endif
