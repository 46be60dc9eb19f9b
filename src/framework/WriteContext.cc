#include "framework/WriteContext.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cassert>
#include <cerrno>
#include <algorithm>
#include <cstring>

#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SplitCompression");

// The largest unit of alignment (addressShift 12); padding is cut from it.
constexpr size_t kMaxUnit = 4096;
const char kZeros[kMaxUnit] = {};

}  // namespace

WriteContext::WriteContext(const Pathname& file, int64_t base, int addressShift)
    : _fileName(file), _base(base), _addressShift(addressShift) {
  assert(addressShift >= 0 && addressShift <= 12);
  assert(base % (int64_t(1) << addressShift) == 0);
  _fd.reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  struct stat st;
  if (!_fd.isValid() || ::fstat(_fd.get(), &st) != 0) {
    gLogger.error("open failure: file=%s, errno=%m", file.c_str());
    throw FileCompressionException("open failure: file=%s, errno=%s", file.c_str(), std::strerror(errno));
  }
  _bytesWritten = st.st_size;
}

// Writes the whole of iov, going on after short writes. On failure the byte
// count is brought back to the file's real size so that the next write pads
// past whatever part landed.
bool WriteContext::writeAll(struct iovec* iov, int count, size_t total) {
  size_t done = 0;
  while (done < total) {
    ssize_t n = ::writev(_fd.get(), iov, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      gLogger.error("write failure: file=%s errno=%m", _fileName.c_str());
      int saved = errno;
      struct stat st;
      if (_fd.isValid() && ::fstat(_fd.get(), &st) == 0) _bytesWritten = st.st_size;
      errno = saved;
      return false;
    }
    done += size_t(n);
    _bytesWritten += n;
    // Skip the parts written in full and trim the one cut short.
    size_t skip = size_t(n);
    while (count > 0 && skip >= iov->iov_len) {
      skip -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + skip;
      iov->iov_len -= skip;
    }
  }
  return true;
}

bool WriteContext::padToBoundary() {
  if (!_fd.isValid()) return false;
  const int64_t unit = int64_t(1) << _addressShift;
  const size_t pad = size_t((unit - (_bytesWritten % unit)) % unit);
  if (pad == 0) return true;
  if (_keeping && !reserve(pad)) {
    if (!flush()) return false;
    dropImage();
  }
  if (_keeping || _used + pad <= _cap) {
    std::memset(_buf.data() + _used, 0, pad);
    _used += pad;
    _bytesWritten += int64_t(pad);
    return true;
  }
  if (!flush()) return false;
  struct iovec iov = {const_cast<char*>(kZeros), pad};
  return writeAll(&iov, 1, pad);
}

bool WriteContext::setBuffer(size_t bytes) {
  if (!flush()) return false;
  _cap = bytes;
  if (_keeping) {
    _buf.reserve(bytes);
  } else {
    _buf = ByteBuffer();
    _buf.reserve(bytes);
  }
  return true;
}

bool WriteContext::keepImage(ByteBuffer storage, size_t maxBytes, size_t expectBytes) {
  if (!_fd.isValid() || _bytesWritten != 0 || _used != 0) return false;
  _buf = std::move(storage);
  _buf.size = 0;
  _buf.reserve(std::max(_cap, std::min(expectBytes, maxBytes)));
  _keeping = true;
  _maxImage = maxBytes;
  _used = _flushed = 0;
  return true;
}

bool WriteContext::takeImage(ByteBuffer& out) {
  const bool whole = _keeping && !_fd.isValid() && _flushed == _used && int64_t(_used) == _bytesWritten;
  _buf.size = whole ? _used : 0;
  out = std::move(_buf);
  _keeping = false;
  _used = _flushed = 0;
  return whole;
}

bool WriteContext::reserve(size_t more) {
  const size_t need = _used + more;
  if (need <= _buf.capacity()) return true;
  if (!_keeping || need > _maxImage) return false;
  size_t n = std::min(_maxImage, std::max<size_t>(_buf.capacity() * 2, size_t(1) << 16));
  _buf.size = _used;
  _buf.reserve(std::max(n, need));
  return true;
}

void WriteContext::dropImage() {
  if (!_keeping) return;
  _keeping = false;
  const size_t pending = _used - _flushed;
  ByteBuffer normal;
  normal.reserve(std::max(_cap, pending));
  if (pending) std::memcpy(normal.data(), _buf.data() + _flushed, pending);
  _used = pending;
  _flushed = 0;
  _buf = std::move(normal);
}

bool WriteContext::flush() {
  size_t done = _flushed;
  while (done < _used) {
    ssize_t n = _fd.isValid() ? ::write(_fd.get(), _buf.data() + done, _used - done) : (errno = EBADF, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      gLogger.error("write failure: file=%s errno=%m", _fileName.c_str());
      int saved = errno;
      _flushed = done;
      if (!_keeping) {
        std::memmove(_buf.data(), _buf.data() + done, _used - done);
        _used -= done;
        _flushed = 0;
      }
      errno = saved;
      return false;
    }
    done += size_t(n);
  }
  if (_keeping) {
    _flushed = _used;
  } else {
    _used = _flushed = 0;
  }
  return true;
}

// One record, little-endian and packed; `len` = rawLen + metaLen + 8.
//
//   OFFSET               SIZE     MEANING
//   0                    1        separator '|'
//   1                    4        len
//   5                    4        segment count, always 0
//   9                    4        time, seconds (signed)
//   13                   rawLen   raw text of the event
//   13+rawLen            metaLen  metadata text, may be empty
//   13+rawLen+metaLen    4        rawLen
//   17+rawLen+metaLen    pad      zero bytes up to the next 2^shift boundary
//
// The record goes out in one writev of these eight parts.
int64_t WriteContext::write(int32_t time, std::string_view raw, std::string_view meta) {
  assert(!raw.empty());
  if (!_fd.isValid()) {
    errno = EBADF;
    gLogger.error("write failure: file=%s errno=%m", _fileName.c_str());
    return -1;
  }
  const uint64_t len64 = uint64_t(raw.size()) + meta.size() + 8;
  if (len64 > UINT32_MAX) {
    gLogger.error("raw data too large: file=%s", _fileName.c_str());
    return -1;
  }
  if (!padToBoundary()) return -1;

  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "raw data records are little-endian");
  char sep = '|';
  uint32_t len = uint32_t(len64);
  uint32_t segCount = 0;
  int32_t t = time;
  uint32_t rawLen = uint32_t(raw.size());
  const int64_t unit = int64_t(1) << _addressShift;
  const size_t body = 17 + raw.size() + meta.size();
  const size_t pad = size_t((unit - int64_t(body % unit)) % unit);

  struct iovec iov[8] = {
      {&sep, 1},
      {&len, 4},
      {&segCount, 4},
      {&t, 4},
      {const_cast<char*>(raw.data()), raw.size()},
      {const_cast<char*>(meta.data()), meta.size()},
      {&rawLen, 4},
      {const_cast<char*>(kZeros), pad},
  };
  const int64_t start = _base + _bytesWritten;
  const size_t total = body + pad;
  if (_keeping && !reserve(total)) {
    // Too large for the image: from here on the file is read back to be
    // compressed.
    if (!flush()) return -1;
    dropImage();
  }
  if (_keeping || (_cap > 0 && total <= _cap)) {
    // Gathered in the buffer; a full buffer goes out first. A buffer that
    // will not flush refuses the record rather than grow.
    if (!_keeping && _used + total > _cap && !flush()) return -1;
    char* out = _buf.data() + _used;
    for (const struct iovec& part : iov) {
      if (part.iov_len) std::memcpy(out, part.iov_base, part.iov_len);
      out += part.iov_len;
    }
    _used += total;
    _bytesWritten += int64_t(total);
    if (_keeping && _used - _flushed >= _cap && !flush() && _cap == 0) {
      // Unbuffered, the record must be in the file when this returns: it
      // is refused, and the next write pads past whatever part landed.
      int saved = errno;
      struct stat st;
      _bytesWritten = ::fstat(_fd.get(), &st) == 0 ? st.st_size : _bytesWritten - int64_t(total);
      _used = _flushed;
      dropImage();
      errno = saved;
      return -1;
    }
    return start;
  }
  if (!flush()) return -1;
  if (!writeAll(iov, 8, total)) return -1;
  return start;
}

bool WriteContext::close() {
  if (!_fd.isValid()) return true;
  bool ok = padToBoundary() && flush();
  ok = _fd.close() && ok;
  if (!ok) _keeping = false;
  if (!_keeping) _used = _flushed = 0;
  return ok;
}
