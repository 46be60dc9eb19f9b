#include "util/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "util/StrSegment.h"

bool FileDescriptor::close() {
  if (_fd < 0) return false;
  const int rc = ::close(_fd);
  _fd = -1;
  return rc == 0;
}

ssize_t FileDescriptor::read(void* buf, size_t len) const {
  ssize_t n;
  do n = ::read(_fd, buf, len);
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t FileDescriptor::write(const void* buf, size_t len) const {
  ssize_t n;
  do n = ::write(_fd, buf, len);
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t FileDescriptor::writev(const struct iovec* iov, int iovcnt) const {
  ssize_t n;
  do n = ::writev(_fd, iov, iovcnt);
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t FileDescriptor::pread(void* buf, size_t len, off_t offset) const {
  ssize_t n;
  do n = ::pread(_fd, buf, len, offset);
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t FileDescriptor::pwrite(const void* buf, size_t len, off_t offset) const {
  ssize_t n;
  do n = ::pwrite(_fd, buf, len, offset);
  while (n < 0 && errno == EINTR);
  return n;
}

bool FileDescriptor::readFully(void* buf, size_t len) const {
  char* p = static_cast<char*>(buf);
  while (len) {
    const ssize_t n = read(p, len);
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool FileDescriptor::writeFully(const void* buf, size_t len) const {
  const char* p = static_cast<const char*>(buf);
  while (len) {
    const ssize_t n = write(p, len);
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool FileDescriptor::writeFully(const StrSegment& text) const {
  return writeFully(text.data(), text.size());
}

bool FileDescriptor::readAll(Str& out) const {
  char buf[65536];
  for (;;) {
    const ssize_t n = read(buf, sizeof buf);
    if (n < 0) return false;
    if (n == 0) return true;
    out.append(buf, static_cast<size_t>(n));
  }
}

bool FileDescriptor::seek_set(off_t offset) const { return ::lseek(_fd, offset, SEEK_SET) == offset; }
off_t FileDescriptor::seekEof() const { return ::lseek(_fd, 0, SEEK_END); }
off_t FileDescriptor::curPos() const { return ::lseek(_fd, 0, SEEK_CUR); }
bool FileDescriptor::sync() const { return ::fsync(_fd) == 0; }
bool FileDescriptor::stat(struct stat& st) const { return ::fstat(_fd, &st) == 0; }

bool FileDescriptor::isReg() const {
  struct stat st;
  return stat(st) && S_ISREG(st.st_mode);
}

bool FileDescriptor::isDir() const {
  struct stat st;
  return stat(st) && S_ISDIR(st.st_mode);
}

bool FileDescriptor::setCloseOnExec(bool on) const {
  const int flags = ::fcntl(_fd, F_GETFD);
  if (flags < 0) return false;
  return ::fcntl(_fd, F_SETFD, on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC)) == 0;
}

bool FileDescriptor::setNonBlocking(bool on) const {
  const int flags = ::fcntl(_fd, F_GETFL);
  if (flags < 0) return false;
  return ::fcntl(_fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK)) == 0;
}

bool FileDescriptor::format(const char* fmt, ...) const {
  Str text;
  va_list ap;
  va_start(ap, fmt);
  text.appendVformat(fmt, ap);
  va_end(ap);
  return writeFully(text.data(), text.size());
}

int FileDescriptor::moveAboveStdio(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return moved;
}
