#include "framework/SplitCompression.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <vector>

#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SplitCompression");

const char kMarker[] = ".compressedAddresses";

// Accepts "(\d+)(\.gz)?" and gives the base and whether it is compressed.
bool parseFileName(const Str& name, int64_t& base, bool& gz) {
  size_t digits = 0;
  while (digits < name.size() && name[digits] >= '0' && name[digits] <= '9') ++digits;
  if (digits == 0 || digits > 18) return false;
  if (digits == name.size()) {
    gz = false;
  } else if (name.compare(digits, Str::npos, ".gz") == 0) {
    gz = true;
  } else {
    return false;
  }
  base = 0;
  for (size_t i = 0; i < digits; ++i) base = base * 10 + (name[i] - '0');
  return true;
}

}  // namespace

SplitCompression::SplitCompression(const Pathname& path, uint64_t rollSize, int addressBits, bool compress)
    : _path(path), _rollSize(rollSize), _addressShift(addressBits), _compress(compress) {
  assert(addressBits >= 0 && addressBits <= 12);
  if (!_path.isDir() && !_path.mkdir_p()) {
    gLogger.error("mkdir failure: path=%s errno=%m", _path.c_str());
    throw FileCompressionException("mkdir failure: path=%s errno=%s", _path.c_str(), std::strerror(errno));
  }
  scan();
  Pathname marker(_path + "/" + kMarker);
  if (marker.isDir()) return;
  if (_foundFiles.empty()) {
    if (!marker.mkdir() && errno != EEXIST) {
      gLogger.error("mkdir failure: path=%s errno=%m", marker.c_str());
      throw FileCompressionException("mkdir failure: path=%s errno=%s", marker.c_str(), std::strerror(errno));
    }
    return;
  }
  gLogger.info("compression disabled: path=%s", _path.c_str());
  _addressShift = 0;
}

SplitCompression::~SplitCompression() {
  ScopedLock w(_writeMutex);
  ScopedLock l(_mutex);
  if (_writeContext) _writeContext->close();
  _writeContext.reset();
  waitForCompressionLocked();
  if (_deflater) libdeflate_free_compressor(_deflater);
}

Pathname SplitCompression::fileFor(int64_t base, bool gz) const {
  char name[32];
  std::snprintf(name, sizeof name, gz ? "%lld.gz" : "%lld", static_cast<long long>(base));
  return Pathname(_path + "/" + name);
}

void SplitCompression::scan() {
  std::vector<Str> names;
  if (!_path.readDirectory(names)) {
    gLogger.error("open failure: file=%s, errno=%m", _path.c_str());
    throw FileCompressionException("open failure: file=%s, errno=%s", _path.c_str(), std::strerror(errno));
  }
  ScopedLock l(_mutex);
  _foundFiles.clear();
  for (const Str& name : names) {
    if (name == kMarker) continue;
    int64_t base;
    bool gz;
    if (!parseFileName(name, base, gz)) {
      gLogger.warn("directory scan: unsuitable file=%s", name.c_str());
      continue;
    }
    auto it = _foundFiles.find(base);
    if (it == _foundFiles.end()) {
      _foundFiles.emplace(base, name);
      continue;
    }
    // Both "N" and "N.gz": a gzip is running (in the process that writes
    // this journal) or was cut short; either way only the plain file is
    // whole, and it is the one read. A reader leaves both alone: the gzip
    // may well be finishing. The writer removes a partial output when it
    // opens the journal for writing (no gzip of its own runs yet then).
    _partialGz.push_back(base);
    it->second = fileFor(base, false).toLeaf();
  }
}

std::map<int64_t, Str> SplitCompression::files() {
  ScopedLock l(_mutex);
  return _foundFiles;
}

void SplitCompression::open() {
  ScopedLock w(_writeMutex);
  ScopedLock l(_mutex);
  openLocked();
}

void SplitCompression::setWriteBuffer(size_t bytes) {
  ScopedLock w(_writeMutex);
  _writeBuffer = bytes;
  if (_writeContext) _writeContext->setBuffer(bytes);
}

bool SplitCompression::flush() {
  ScopedLock w(_writeMutex);
  return !_writeContext || _writeContext->flush();
}

int SplitCompression::flushHook(void* ctx) { return static_cast<SplitCompression*>(ctx)->flush() ? 0 : -1; }

void SplitCompression::openLocked() {
  if (_writeContext) return;
  // Partial gzip outputs left by a crash of the last writer.
  for (int64_t base : _partialGz) {
    Pathname stale = fileFor(base, true);
    if (!fileFor(base, false).exists()) continue;  // it finished after all
    gLogger.warn("directory scan: removing partial file=%s", stale.c_str());
    stale.unlink();
  }
  _partialGz.clear();
  const int64_t unit = int64_t(1) << _addressShift;
  int64_t base = 0;
  if (_nextBase >= 0) {
    base = _nextBase;
  } else if (!_foundFiles.empty()) {
    auto last = std::prev(_foundFiles.end());
    Pathname lastFile(_path + "/" + last->second);
    if (!last->second.ends_with(".gz")) {
      // Carry on in the plain last file; the next write pads a torn tail.
      _writeContext = std::make_unique<WriteContext>(lastFile, last->first, _addressShift);
      _writeContext->setBuffer(_writeBuffer);
      return;
    }
    ReadContext rc(lastFile, last->first, -1, this, _addressShift);
    int64_t size = rc.rawSize();
    if (size < 0) {
      errno = EIO;
      gLogger.error("open failure: file=%s, errno=%m", lastFile.c_str());
      throw FileCompressionException("open failure: file=%s, errno=%s", lastFile.c_str(), std::strerror(EIO));
    }
    base = (last->first + size + unit - 1) / unit * unit;
  }
  Pathname file = fileFor(base, false);
  _writeContext = std::make_unique<WriteContext>(file, base, _addressShift);
  _writeContext->setBuffer(_writeBuffer);
  // The image holds the roll size and the record that passes it.
  if (_compress) _writeContext->keepImage(std::move(_spareImage), kMaxImage, _rollSize + (1u << 20));
  _spareImage = ByteBuffer();
  _foundFiles[base] = file.toLeaf();
  _nextBase = -1;
}

int64_t SplitCompression::write(int32_t time, std::string_view raw, std::string_view meta) {
  ScopedLock w(_writeMutex);
  try {
    if (!_writeContext) {
      ScopedLock l(_mutex);
      openLocked();
    }
  } catch (const FileCompressionException&) {
    return -1;  // logged where it was thrown
  }
  const int64_t start = _writeContext->write(time, raw, meta);
  if (start < 0) return -1;
  if (uint64_t(start - _writeContext->base()) > _rollSize) {
    try {
      roll(true);
    } catch (const FileCompressionException&) {
      // The event is stored; the next write tries to open a file again.
    }
  }
  return start >> _addressShift;
}

// REQUIRES: fromWrite, or _writeMutex not held by this thread.
void SplitCompression::roll(bool fromWrite) {
  std::unique_ptr<ScopedLock> w;
  if (!fromWrite) w = std::make_unique<ScopedLock>(_writeMutex);
  ScopedLock l(_mutex);
  closeCurrentLocked(!fromWrite);
  openLocked();
}

void SplitCompression::close() {
  ScopedLock w(_writeMutex);
  ScopedLock l(_mutex);
  closeCurrentLocked(true);
}

void SplitCompression::closeCurrentLocked(bool wait) {
  if (!_writeContext) return;
  // Records that cannot be written keep the file open (and their addresses
  // theirs): the roll waits for a flush that succeeds.
  if (!_writeContext->flush()) return;
  _writeContext->close();
  const Pathname file = _writeContext->fileName();
  const int64_t base = _writeContext->base();
  const int64_t end = _writeContext->endOffset();
  ByteBuffer image;
  if (!_writeContext->takeImage(image)) {
    // Not the whole file: it is read back. The storage serves the next one.
    if (image.capacity() > _spareImage.capacity()) std::swap(_spareImage, image);
    image = ByteBuffer();
  }
  _writeContext.reset();
  // The next file begins where this one ends, not in the file that is
  // about to be compressed.
  if (end > base) _nextBase = end;
  waitForCompressionLocked();
  if (!_compress || end == base) {
    if (image.capacity() > _spareImage.capacity()) std::swap(_spareImage, image);
    return;
  }
  const Pathname gz(file + ".gz");
  if (gz.exists()) {
    gLogger.error("dest gzip exists: file=%s", gz.c_str());
    assert(!"dest gzip exists");
    return;
  }
  const char* mode = wait ? "sync" : "async";
  if (!startGzip(file, std::move(image))) {
    gLogger.error("gzip failure: file=%s, mode=%s", file.c_str(), mode);
    return;
  }
  _compressingBase = base;
  gLogger.info("gzip started: file=%s, mode=%s", file.c_str(), mode);
  if (wait) waitForCompressionLocked();
}

bool SplitCompression::startGzip(const Pathname& file, ByteBuffer image) {
  _compressorOk = false;
  _compressing = std::move(image);
  try {
    _compressor = std::thread([this, file] {
      if (_compressing.size == 0) {
        _compressorOk = gzipFile(file);
        return;
      }
      if (!_deflater) _deflater = libdeflate_alloc_compressor(kGzipLevel);
      struct stat st;
      if (!_deflater || ::stat(file.c_str(), &st) != 0 || uint64_t(st.st_size) != _compressing.size) {
        // No compressor, or the file is not what was kept: read it back.
        _compressorOk = gzipFile(file);
        return;
      }
      _compressorOk = gzipBytes(file, st.st_mode & 0777, reinterpret_cast<const unsigned char*>(_compressing.data()),
                                _compressing.size, _deflater, _deflated);
    });
  } catch (const std::system_error&) {
    _compressing = ByteBuffer();
    return false;
  }
  return true;
}

namespace {

// Reads all of fd (size bytes by fstat) into buf; false on a short read.
bool readWhole(int fd, unsigned char* buf, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::read(fd, buf + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += size_t(n);
  }
  return true;
}

bool writeWhole(int fd, const unsigned char* buf, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, buf + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    done += size_t(n);
  }
  return true;
}

}  // namespace

// "<file>.gz" is one gzip member, as "gzip -f" writes it minus the name:
//   OFFSET  SIZE  MEANING
//   0       2     1f 8b
//   2       1     08, deflate
//   3       1     flags, 0: no name, comment or extra field
//   4       4     modification time, 0
//   8       1     extra flags; 9 1: OS
//   10      ...   deflate stream of the whole file
//   end-8   4     CRC-32 of the file, little-endian
//   end-4   4     file size mod 2^32, little-endian
bool SplitCompression::gzipBytes(const Pathname& file, unsigned mode, const unsigned char* data, size_t size,
                                 libdeflate_compressor* c, std::vector<unsigned char>& out) {
  const Pathname gz(file + ".gz");
  const size_t bound = libdeflate_gzip_compress_bound(c, size);
  if (out.size() < bound) out.resize(bound);
  const size_t n = libdeflate_gzip_compress(c, data, size, out.data(), out.size());
  if (n == 0) {
    errno = ENOSPC;  // cannot happen within the bound
    return false;
  }
  int fd = ::open(gz.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok = writeWhole(fd, out.data(), n);
  int e = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    e = errno;
  }
  if (!ok) {
    ::unlink(gz.c_str());
    errno = e;
    return false;
  }
  if (::unlink(file.c_str()) != 0) {
    // Both names stay: readers take the plain one, and the writer removes
    // the ".gz" as a partial output when it next opens the journal.
    return false;
  }
  return true;
}

bool SplitCompression::gzipFile(const Pathname& file, int level) {
  int in = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return false;
  struct stat st;
  if (fstat(in, &st) != 0) {
    int e = errno;
    ::close(in);
    errno = e;
    return false;
  }
  const size_t size = size_t(st.st_size);
  libdeflate_compressor* c = libdeflate_alloc_compressor(level);
  unsigned char* raw = static_cast<unsigned char*>(std::malloc(size ? size : 1));
  bool ok = false;
  int e = ENOMEM;
  if (c && raw) {
    if (readWhole(in, raw, size)) {
      std::vector<unsigned char> out;
      ok = gzipBytes(file, st.st_mode & 0777, raw, size, c, out);
    }
    e = errno;
  }
  ::close(in);
  std::free(raw);
  if (c) libdeflate_free_compressor(c);
  if (!ok) errno = e;
  return ok;
}

void SplitCompression::waitForCompression() {
  ScopedLock l(_mutex);
  waitForCompressionLocked();
}

void SplitCompression::waitForCompressionLocked() {
  if (_compressingBase < 0) return;
  if (_compressor.joinable()) _compressor.join();
  if (_compressing.capacity() > _spareImage.capacity()) std::swap(_spareImage, _compressing);
  _compressing = ByteBuffer();
  const bool ok = _compressorOk;
  const Pathname gz = fileFor(_compressingBase, true);
  if (ok && gz.exists()) {
    _foundFiles[_compressingBase] = gz.toLeaf();
  } else {
    gLogger.error("gzip failure: file=%s, mode=async", fileFor(_compressingBase, false).c_str());
  }
  _compressingBase = -1;
}

bool SplitCompression::read(int64_t address, Str& raw, Str& meta, int32_t& time,
                            std::unique_ptr<ReadContext>* ctx) {
  if (address < 0 || address >= (int64_t(1) << (62 - _addressShift))) return false;
  const int64_t offset = address << _addressShift;
  {
    // A record still in the write buffer is written out before it is read.
    ScopedLock w(_writeMutex);
    if (_writeContext && _writeContext->buffered() && offset >= _writeContext->base()) _writeContext->flush();
  }
  int64_t base, end = -1;
  Str name;
  {
    ScopedLock l(_mutex);
    if (_foundFiles.empty()) {
      gLogger.error("read error: empty dir=%s addr=%lld", _path.c_str(), static_cast<long long>(address));
      return false;
    }
    auto it = _foundFiles.upper_bound(offset);
    if (it == _foundFiles.begin()) {
      gLogger.error("read error: underflow dir=%s addr=%lld", _path.c_str(), static_cast<long long>(address));
      return false;
    }
    if (it != _foundFiles.end()) end = it->first;
    --it;
    base = it->first;
    name = it->second;
  }
  std::unique_ptr<ReadContext> local;
  std::unique_ptr<ReadContext>& use = ctx != nullptr ? *ctx : local;
  if (!use || use->owner() != this || use->base() != base || !use->isOpen()) {
    use = std::make_unique<ReadContext>(Pathname(_path + "/" + name), base, end, this, _addressShift);
  }
  return use->read(address, raw, meta, time);
}

int64_t SplitCompression::endAddr(int64_t address) {
  if (address < 0 || address >= (int64_t(1) << (62 - _addressShift))) return -1;
  ScopedLock l(_mutex);
  auto it = _foundFiles.upper_bound(address << _addressShift);
  return it == _foundFiles.end() ? -1 : it->first >> _addressShift;
}
