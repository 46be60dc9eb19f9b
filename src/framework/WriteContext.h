// WriteContext: appends event records to the one raw data file of a journal
// that is being written. The file is named by the logical offset of its first
// byte (its base); every record starts on a boundary of 2 ^ addressShift
// bytes of the logical stream, so that a record's address is its logical
// offset shifted right by addressShift.
//
// Ownership: owned by its SplitCompression; it owns its descriptor.
// Threads: one writer thread at a time (the index thread, under the policy
// lock); it holds no lock of its own.
#pragma once

#include <cstdint>
#include <string_view>

#include "util/Pathname.h"
#include "util/ScopedFileDescriptor.h"

class WriteContext {
 public:
  // Opens (creating or appending to) file. Throws FileCompressionException
  // "open failure: file=%s, errno=%m" when it cannot.
  // REQUIRES: base is on a boundary; addressShift in [0, 12].
  WriteContext(const Pathname& file, int64_t base, int addressShift);
  WriteContext(const WriteContext&) = delete;
  WriteContext& operator=(const WriteContext&) = delete;

  // Appends one record; returns the logical offset of its first byte, or -1
  // after a logged failure ("raw data too large: file=%s", "write failure:
  // file=%s errno=%m"). A file left off a boundary by an earlier partial
  // write is padded first. REQUIRES: raw is not empty.
  int64_t write(int32_t time, std::string_view raw, std::string_view meta);
  // Zero-fills the file up to the next boundary; false on a write failure.
  bool padToBoundary();
  // Pads and closes the descriptor; later writes fail.
  bool close();

  const Pathname& fileName() const { return _fileName; }
  int64_t base() const { return _base; }
  int addressShift() const { return _addressShift; }
  // Bytes in the file, padding included.
  int64_t bytesWritten() const { return _bytesWritten; }
  // The logical offset just past the file's last byte.
  int64_t endOffset() const { return _base + _bytesWritten; }

 private:
  bool writeAll(struct iovec* iov, int count, size_t total);

  Pathname _fileName;
  int64_t _base;
  int _addressShift;
  ScopedFileDescriptor _fd;
  int64_t _bytesWritten = 0;
};
