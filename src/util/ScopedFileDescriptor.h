// ScopedFileDescriptor: a FileDescriptor that owns its descriptor and closes
// it on destruction. Movable, not copyable. Owned by one thread at a time.
#ifndef VELMOR_UTIL_SCOPEDFILEDESCRIPTOR_H
#define VELMOR_UTIL_SCOPEDFILEDESCRIPTOR_H

#include "util/FileDescriptor.h"

class ScopedFileDescriptor : public FileDescriptor {
 public:
  ScopedFileDescriptor() = default;
  explicit ScopedFileDescriptor(int fd) : FileDescriptor(fd) {}
  // Takes ownership of fd.
  ScopedFileDescriptor(FileDescriptor fd) : FileDescriptor(fd.get()) {}
  ScopedFileDescriptor(ScopedFileDescriptor&& o) noexcept : FileDescriptor(o.release()) {}
  ScopedFileDescriptor& operator=(ScopedFileDescriptor&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  ScopedFileDescriptor(const ScopedFileDescriptor&) = delete;
  ScopedFileDescriptor& operator=(const ScopedFileDescriptor&) = delete;
  ~ScopedFileDescriptor() { close(); }

  // Closes the current descriptor (if any) and owns fd instead.
  void reset(int fd = -1) {
    if (_fd != fd) close();
    _fd = fd;
  }
};

#endif
