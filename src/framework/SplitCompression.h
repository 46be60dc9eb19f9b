// SplitCompression: the raw data journal of one bucket, a directory of
// numbered files holding the text of every event. Each file is named by the
// decimal logical offset of its first byte, with ".gz" once compressed; the
// file being written has no extension and is rolled (padded, closed, handed
// to a background gzip) when a record starts more than the roll size past
// its base. An event is known by its address: its logical offset
// shifted right by the address shift. A directory ".compressedAddresses"
// marks a journal whose addresses are shifted; a journal with files but no
// marker is an old one with plain byte offsets (shift 0).
//
// DESIGN: writes come from one thread (the index thread, under the policy's
// lock) and go to the open WriteContext: one writev each, or, with a write
// buffer (setWriteBuffer), gathered into large writes. A buffered record is
// in the file after the next flush(): the index calls it before it writes a
// slice (so no slice names an address the file does not hold), and a read
// of the file being written calls it first. _writeMutex serialises the
// writer, the roll and those flushes; it is taken before _mutex, never
// after. _mutex guards _foundFiles, the roll and the compression token;
// readers take it only to find which file an address lies in, then read
// with their own ReadContext and descriptor, so any number of reads run at
// once beside the writer. At most one gzip runs at a time: a roll waits for the previous one
// before starting the next. The gzip runs in this process, on a thread of
// its own (_compressor), and writes the gzip format: it deflates the closed
// file whole in one call (libdeflate, level kGzipLevel: on raw data files
// 9% larger than level 6 and a quarter less CPU; the bucket stays below 0.7
// bytes per raw byte), writes "N.gz" and removes "N",
// as "gzip -f" does, under readers, whose open descriptors keep working; a
// context opened later finds either name. No child process is made, so a
// large process never forks for it. The writer keeps the image of the file
// it writes (WriteContext::keepImage), so the gzip takes the bytes from
// memory rather than reading back the file; the two image buffers, the
// compressor and its output buffer are reused from file to file, so that
// steady writing allocates (and faults in) nothing. A file the writer did
// not write whole (one carried on after a restart) is read back.
//
// Ownership: owns its WriteContext and the compressing thread; the
// destructor waits for that thread. Callers own their ReadContexts.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>
#include <memory>
#include <string_view>
#include <thread>

#include "framework/ReadContext.h"
#include "framework/WriteContext.h"
#include "util/ByteBuffer.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct libdeflate_compressor;

class SplitCompression {
 public:
  static constexpr uint64_t kDefaultRollSize = 0xA00000;  // 10 MiB
  static constexpr int kDefaultAddressBits = 5;
  static constexpr int kGzipLevel = 4;

  // Creates the directory if needed and scans it. Throws
  // FileCompressionException ("mkdir failure: path=%s errno=%m") when the
  // directory cannot be made. With compress false rolled files stay plain.
  // REQUIRES: addressBits in [0, 12].
  SplitCompression(const Pathname& path, uint64_t rollSize = kDefaultRollSize,
                   int addressBits = kDefaultAddressBits, bool compress = true);
  ~SplitCompression();
  SplitCompression(const SplitCompression&) = delete;
  SplitCompression& operator=(const SplitCompression&) = delete;

  // Opens the file to write at the end of the address space: the last file
  // again when it is plain (padding a torn tail to the boundary), else a new
  // one. Throws FileCompressionException "open failure: file=%s, errno=%m".
  // write() calls it on need.
  void open();
  // Appends one event; returns its address, or -1 (logged). REQUIRES: raw
  // is not empty.
  int64_t write(int32_t time, std::string_view raw, std::string_view meta);
  // Gathers records in a buffer of `bytes` per file (0, the default: one
  // write per record). Whoever turns it on must call flush() before anything
  // that names the buffered addresses becomes visible.
  void setWriteBuffer(size_t bytes);
  // Writes out the buffered records of the current file. True when none are
  // left buffered. Any thread.
  bool flush();
  // flush() for the index engine's before-write hook: ctx is the journal;
  // 0 on success, -1 otherwise.
  static int flushHook(void* ctx);
  // Reads the event at address. ctx, when given, is reused if it belongs to
  // this journal and covers the address, and replaced otherwise, so that a
  // caller walking addresses in order reads each file once. Never throws.
  bool read(int64_t address, Str& raw, Str& meta, int32_t& time, std::unique_ptr<ReadContext>* ctx = nullptr);
  // Address of the end of the file holding address, or -1 when it lies in
  // the last file.
  int64_t endAddr(int64_t address);
  // Closes the current file, starts its compression and opens the next one.
  // fromWrite true (a roll by size) lets gzip run in the background; false
  // waits for it.
  void roll(bool fromWrite);
  // Pads and closes the current file, compresses it (waiting) unless it is
  // empty; a later write opens a new file.
  void close();
  // Waits for a running gzip, if any.
  void waitForCompression();
  // Compresses file into "<file>.gz" (gzip format, level 1-12) and removes
  // file, as "gzip -f" does. False, with errno set and no "<file>.gz" left,
  // when it cannot read, deflate or write. Any thread.
  static bool gzipFile(const Pathname& file, int level = kGzipLevel);
  // Deflates size bytes of data, the content of file, into "<file>.gz" (mode
  // bits `mode`) with c, through out (grown as needed), and removes file.
  // False with errno set, and no "<file>.gz" left unless file could not be
  // removed.
  static bool gzipBytes(const Pathname& file, unsigned mode, const unsigned char* data, size_t size,
                        libdeflate_compressor* c, std::vector<unsigned char>& out);
  // Largest file image the writer keeps in memory; a file that grows past
  // it (one huge event) is read back instead.
  static constexpr size_t kMaxImage = 64u << 20;

  const Pathname& path() const { return _path; }
  int addressShift() const { return _addressShift; }
  bool compressionEnabled() const { return _compress; }
  // File names by base offset, as the journal knows them now.
  std::map<int64_t, Str> files();

 private:
  void scan();
  void openLocked();
  // Closes the current file and compresses it; wait picks sync mode.
  void closeCurrentLocked(bool wait);
  // Starts the background gzip of file, from image when it is not empty
  // (it holds the file's bytes), else from the file. False if it could not
  // start.
  bool startGzip(const Pathname& file, ByteBuffer image);
  void waitForCompressionLocked();
  Pathname fileFor(int64_t base, bool gz) const;

  Pathname _path;
  uint64_t _rollSize;
  int _addressShift;
  bool _compress;
  std::unique_ptr<WriteContext> _writeContext;
  std::map<int64_t, Str> _foundFiles;  // base offset -> file name
  std::vector<int64_t> _partialGz;     // bases found both plain and gzipped
  Mutex _writeMutex;  // the writer, its buffer and the roll; before _mutex
  size_t _writeBuffer = 0;
  Mutex _mutex;
  std::thread _compressor;      // the running gzip, joined by waitForCompressionLocked
  bool _compressorOk = false;   // its result: written by it, read after the join
  // Owned by the running gzip while there is one, else by this object:
  ByteBuffer _compressing;  // the image being compressed
  ByteBuffer _spareImage;   // storage for the next file's image
  std::vector<unsigned char> _deflated;
  struct libdeflate_compressor* _deflater = nullptr;
  int64_t _compressingBase = -1;
  int64_t _nextBase = -1;  // base of the file to open after a close
};
