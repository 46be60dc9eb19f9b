#include "framework/ReadContext.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/Logger.h"

namespace {

Logger gLogger("SplitCompression");

bool endsWithGz(const Str& name) { return name.size() > 3 && name.compare(name.size() - 3, 3, ".gz") == 0; }

uint32_t word(const char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace

ReadContext::ReadContext(const Pathname& file, int64_t base, int64_t end, const SplitCompression* owner,
                         int addressShift)
    : _fileName(file), _base(base), _end(end), _owner(owner), _addressShift(addressShift) {
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT && !endsWithGz(file)) {
    // Compressed (and the plain file removed) since the directory was read.
    Pathname gz(file + ".gz");
    fd = ::open(gz.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) _fileName = gz;
  }
  if (fd < 0) {
    gLogger.error("open failure: file=%s, errno=%m", file.c_str());
    return;
  }
  if (endsWithGz(_fileName)) {
    _gz = GzPrefixCache::instance()->get(_fileName, fd);
    if (_gz == nullptr) {
      gLogger.error("open failure: file=%s, errno=%m", _fileName.c_str());
      return;
    }
  } else {
    _fd.reset(fd);
    struct stat st;
    if (::fstat(fd, &st) == 0) _plainSize = st.st_size;
  }
}

ReadContext::~ReadContext() = default;

bool ReadContext::seek(int64_t offset) {
  if (!isOpen() || offset < _base) return false;
  if (_gz == nullptr) return true;  // plain files are read with pread
  return _gz->has(offset - _base);
}

bool ReadContext::readAt(int64_t pos, void* buf, size_t len) {
  char* p = static_cast<char*>(buf);
  if (_gz != nullptr) return _gz->read(pos, p, len);
  while (len > 0) {
    ssize_t n = _fd.pread(p, len, off_t(pos));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    pos += n;
    len -= size_t(n);
  }
  return true;
}

bool ReadContext::readBody(int64_t pos, size_t len) {
  if (_gz == nullptr) {
    if (pos + int64_t(len) > _plainSize) {
      struct stat st;  // the last file grows under us
      if (::fstat(_fd.get(), &st) == 0) _plainSize = st.st_size;
      if (pos + int64_t(len) > _plainSize) return false;
    }
    if (_body.size() < len) _body.resize(len);
    return readAt(pos, _body.data(), len);
  }
  if (!_gz->has(pos + int64_t(len))) return false;  // before any allocation of len
  if (_body.size() < len) _body.resize(len);
  return readAt(pos, _body.data(), len);
}

// Reads the record layout written by WriteContext::write. The body after
// `len` is len + 4 bytes: segment count, time, segCount pairs of words (never
// written, but allowed for), the text (raw then metadata), and rawLen.
bool ReadContext::read(int64_t address, Str& raw, Str& meta, int32_t& time) {
  if (!isOpen() || address < 0) return false;
  const int64_t offset = address << _addressShift;
  if (!contains(offset)) return false;
  const int64_t pos = offset - _base;
  const long long off = static_cast<long long>(offset);
  char sep;
  if (!readAt(pos, &sep, 1)) {
    gLogger.error("read failure: path=%s, offset=%lld, unable to read separator", _fileName.c_str(), off);
    return false;
  }
  if (sep != '|') {
    gLogger.error("invalid separator: path=%s, offset=%lld, separator='%c', expected='|'", _fileName.c_str(), off,
                  sep);
    return false;
  }
  char lenBytes[4];
  if (!readAt(pos + 1, lenBytes, 4)) {
    gLogger.error("read failure: path=%s, offset=%lld, unable to read len", _fileName.c_str(), off);
    return false;
  }
  const uint64_t bodyLen = uint64_t(word(lenBytes)) + 4;
  if (bodyLen < 12 || !readBody(pos + 5, size_t(bodyLen))) {
    gLogger.error("read failure: path=%s, offset=%lld, unable to read body", _fileName.c_str(), off);
    return false;
  }
  const char* b = _body.data();
  const uint64_t segCount = word(b);
  const int64_t textLen = int64_t(bodyLen) - int64_t(2 * segCount + 3) * 4;
  const uint32_t rawLen = word(b + bodyLen - 4);
  if (segCount > bodyLen || textLen < 0 || rawLen == 0 || rawLen > uint64_t(textLen)) {
    gLogger.error("read failure: path=%s, offset=%lld, corrupt record", _fileName.c_str(), off);
    return false;
  }
  time = int32_t(word(b + 4));
  const char* text = b + (2 * segCount + 2) * 4;
  raw.assign(text, rawLen);
  meta.assign(text + rawLen, size_t(textLen) - rawLen);
  return true;
}

bool ReadContext::readAll(Str& out) {
  out.clear();
  if (!isOpen()) return false;
  if (_gz != nullptr) return _gz->readAll(out);
  char buf[64 * 1024];
  for (off_t pos = 0;;) {
    ssize_t n = _fd.pread(buf, sizeof buf, pos);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    out.append(buf, size_t(n));
    pos += n;
  }
}

int64_t ReadContext::rawSize() {
  if (!isOpen()) return -1;
  if (_gz == nullptr) {
    struct stat st;
    if (::fstat(_fd.get(), &st) != 0) return -1;
    return _plainSize = st.st_size;
  }
  return _gz->size();
}
