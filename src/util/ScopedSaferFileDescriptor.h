// ScopedSaferFileDescriptor: a ScopedFileDescriptor that never holds 0, 1 or
// 2. A descriptor in that range is moved above them when it is handed over
// (see FileDescriptor::moveAboveStdio), so that code which later redirects
// the standard descriptors cannot close or overwrite it by accident.
// Owned by one thread at a time.
#ifndef VELMOR_UTIL_SCOPEDSAFERFILEDESCRIPTOR_H
#define VELMOR_UTIL_SCOPEDSAFERFILEDESCRIPTOR_H

#include "util/ScopedFileDescriptor.h"

class ScopedSaferFileDescriptor : public ScopedFileDescriptor {
 public:
  ScopedSaferFileDescriptor() = default;
  explicit ScopedSaferFileDescriptor(int fd) : ScopedFileDescriptor(moveAboveStdio(fd)) {}
  ScopedSaferFileDescriptor(FileDescriptor fd) : ScopedFileDescriptor(moveAboveStdio(fd.get())) {}
  ScopedSaferFileDescriptor(ScopedSaferFileDescriptor&&) noexcept = default;
  ScopedSaferFileDescriptor& operator=(ScopedSaferFileDescriptor&&) noexcept = default;

  void reset(int fd = -1) { ScopedFileDescriptor::reset(moveAboveStdio(fd)); }
};

#endif
