// ReadContext: reads records from one file of a raw data journal, plain or
// gzipped (by a name ending in ".gz"). It keeps its descriptor; a gzip file
// is read through the process's GzPrefixCache, which inflates each file once
// as far as it is read, so that reads in any order (newest first, as
// searches read) cost no more than one forward pass.
//
// A plain file that is gzipped while it is named here is looked up as
// "<name>.gz" when the plain name has gone; a descriptor opened before the
// rename keeps working.
//
// Ownership: made by SplitCompression::read (or by a caller that wants to
// walk one file), owned by the caller; `owner` only identifies the journal
// it came from. Threads: one thread at a time; any number of contexts may
// read one file at once.
#pragma once

#include <zlib.h>

#include <memory>

#include <cstdint>
#include <vector>

#include "framework/GzPrefixCache.h"
#include "util/Pathname.h"
#include "util/ScopedFileDescriptor.h"
#include "util/Str.h"

class SplitCompression;

class ReadContext {
 public:
  // Opens file, whose first byte is at logical offset base; end is the
  // logical offset where the next file begins, or -1 for the last file.
  // An open failure is logged ("open failure: file=%s, errno=%m") and leaves
  // the context closed (isOpen() false, every read false).
  ReadContext(const Pathname& file, int64_t base, int64_t end, const SplitCompression* owner,
              int addressShift);
  ~ReadContext();
  ReadContext(const ReadContext&) = delete;
  ReadContext& operator=(const ReadContext&) = delete;

  bool isOpen() const { return _fd.isValid() || _gz != nullptr; }
  // Reads the record at address (logical offset >> addressShift). False,
  // with a logged reason, when there is no well-formed record there.
  bool read(int64_t address, Str& raw, Str& meta, int32_t& time);
  // Moves to a logical offset within this file.
  bool seek(int64_t offset);
  // The whole uncompressed content of the file.
  bool readAll(Str& out);
  // Uncompressed size of the file in bytes, or -1. For a gzip file it reads
  // the stream through.
  int64_t rawSize();

  // True if offset lies in this file's part of the address space.
  bool contains(int64_t offset) const { return offset >= _base && (_end < 0 || offset < _end); }
  const SplitCompression* owner() const { return _owner; }
  const Pathname& fileName() const { return _fileName; }
  int64_t base() const { return _base; }
  int64_t end() const { return _end; }
  bool compressed() const { return _gz != nullptr; }

 private:
  // Reads exactly len bytes at the current position (the file offset pos,
  // for plain files); false on a short read.
  bool readAt(int64_t pos, void* buf, size_t len);
  // As readAt, into _body, growing it only as data really arrives so that a
  // corrupt length cannot make a huge allocation.
  bool readBody(int64_t pos, size_t len);

  Pathname _fileName;
  int64_t _base;
  int64_t _end;
  const SplitCompression* _owner;
  int _addressShift;
  ScopedFileDescriptor _fd;
  // A gzipped file is read through the process's GzPrefixCache entry of it,
  // so that reads in any order inflate the file once.
  std::shared_ptr<GzPrefixCache::Entry> _gz;
  int64_t _plainSize = 0;  // last known size of a plain file
  std::vector<char> _body;
};
