// WriteContext: appends event records to the one raw data file of a journal
// that is being written. The file is named by the logical offset of its first
// byte (its base); every record starts on a boundary of 2 ^ addressShift
// bytes of the logical stream, so that a record's address is its logical
// offset shifted right by addressShift.
//
// With a write buffer (setBuffer), records are gathered in memory and go to
// the file in large writes: at flush(), when the buffer is full, and at
// close. The logical offsets (and so the addresses) are the same either way;
// a record becomes readable from the file at the flush after it. A flush
// that fails keeps what it could not write, in order, for the next one, so
// no address is ever given twice.
//
// With an image kept (keepImage), the buffer is not emptied by a flush: it
// holds every byte of the file, in order, so that whoever compresses the
// file when it is closed takes the bytes from memory (takeImage) instead of
// reading back what was just written. A file too large for the image, or a
// write that failed, ends the keeping; the file itself is the same either
// way.
//
// Ownership: owned by its SplitCompression; it owns its descriptor and its
// buffer.
// Threads: one thread at a time; SplitCompression serialises the writer and
// flushes from other threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "util/ByteBuffer.h"
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
  // Gathers records in a buffer of `bytes` (0: every record goes out in one
  // writev of its own). Flushes what the old buffer holds first; false if
  // that fails (the old buffer is then kept).
  bool setBuffer(size_t bytes);
  // Writes what the buffer holds. True when it is empty afterwards; on a
  // failure ("write failure: file=%s errno=%m") the rest stays buffered.
  bool flush();
  // Bytes written but still in the buffer.
  size_t buffered() const { return _used - _flushed; }
  // Keeps the whole file in memory from here on, in `storage` (its block is
  // reused, made ready for expectBytes) and up to maxBytes. False, keeping
  // nothing, unless the file is still empty.
  bool keepImage(ByteBuffer storage, size_t maxBytes, size_t expectBytes = 0);
  // After close(): the file's bytes in `out` (out.size of them) when the
  // image was kept whole (true); else false, with out.size 0. Either way
  // the block goes to `out` for reuse.
  bool takeImage(ByteBuffer& out);
  // Flushes, pads and closes the descriptor; later writes fail. A buffer
  // that cannot be flushed is dropped with the descriptor (logged).
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
  // Makes room for `more` bytes behind _used; false when the buffer may not
  // grow that far (an image then stops being kept, and the caller flushes).
  bool reserve(size_t more);
  // Stops keeping the image: what is flushed leaves the buffer.
  void dropImage();

  Pathname _fileName;
  int64_t _base;
  int _addressShift;
  ScopedFileDescriptor _fd;
  int64_t _bytesWritten = 0;  // logical: on disk plus buffered
  ByteBuffer _buf;  // [_flushed, _used) waits for the file; size unused
  size_t _cap = 0;         // bytes gathered before a write goes out
  size_t _flushed = 0;     // with an image, bytes of _buf already in the file
  size_t _used = 0;
  bool _keeping = false;   // _buf holds the file from its first byte
  size_t _maxImage = 0;
};
