// ReadableFileMapping: a read-only, private mmap of a file (or a range of
// it), unmapped on destruction. The mapping does not keep the descriptor:
// the caller may close it once map() returned. An empty file maps
// successfully to an empty range. Movable, not copyable; once mapped the
// bytes may be read from any thread.
#ifndef VELMOR_UTIL_READABLEFILEMAPPING_H
#define VELMOR_UTIL_READABLEFILEMAPPING_H

#include <sys/types.h>

#include <cstddef>

#include "util/FileDescriptor.h"
#include "util/StrSegment.h"

class ReadableFileMapping {
 public:
  ReadableFileMapping() = default;
  ReadableFileMapping(ReadableFileMapping&& o) noexcept;
  ReadableFileMapping& operator=(ReadableFileMapping&& o) noexcept;
  ReadableFileMapping(const ReadableFileMapping&) = delete;
  ReadableFileMapping& operator=(const ReadableFileMapping&) = delete;
  ~ReadableFileMapping() { unmap(); }

  // Maps the whole file. Replaces any earlier mapping. False on failure.
  bool map(const FileDescriptor& fd);
  // Maps [offset, offset + length); offset need not be page aligned.
  bool map(const FileDescriptor& fd, off_t offset, size_t length);
  void unmap();

  bool isMapped() const { return _mapped; }
  const char* data() const { return _data; }
  size_t size() const { return _size; }
  StrSegment segment() const { return StrSegment(_data, _size); }

 private:
  void* _base = nullptr;  // what mmap returned
  size_t _baseLen = 0;
  const char* _data = nullptr;
  size_t _size = 0;
  bool _mapped = false;
};

#endif
