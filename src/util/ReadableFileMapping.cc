#include "util/ReadableFileMapping.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

ReadableFileMapping::ReadableFileMapping(ReadableFileMapping&& o) noexcept
    : _base(std::exchange(o._base, nullptr)),
      _baseLen(std::exchange(o._baseLen, 0)),
      _data(std::exchange(o._data, nullptr)),
      _size(std::exchange(o._size, 0)),
      _mapped(std::exchange(o._mapped, false)) {}

ReadableFileMapping& ReadableFileMapping::operator=(ReadableFileMapping&& o) noexcept {
  if (this != &o) {
    unmap();
    _base = std::exchange(o._base, nullptr);
    _baseLen = std::exchange(o._baseLen, 0);
    _data = std::exchange(o._data, nullptr);
    _size = std::exchange(o._size, 0);
    _mapped = std::exchange(o._mapped, false);
  }
  return *this;
}

bool ReadableFileMapping::map(const FileDescriptor& fd) {
  struct stat st;
  if (!fd.stat(st)) {
    unmap();
    return false;
  }
  return map(fd, 0, static_cast<size_t>(st.st_size));
}

bool ReadableFileMapping::map(const FileDescriptor& fd, off_t offset, size_t length) {
  unmap();
  if (offset < 0 || !fd.isValid()) return false;
  if (length == 0) {
    _mapped = true;
    return true;
  }
  const off_t page = static_cast<off_t>(sysconf(_SC_PAGESIZE));
  const off_t aligned = offset - offset % page;
  const size_t lead = static_cast<size_t>(offset - aligned);
  void* p = ::mmap(nullptr, length + lead, PROT_READ, MAP_PRIVATE, fd.get(), aligned);
  if (p == MAP_FAILED) return false;
  _base = p;
  _baseLen = length + lead;
  _data = static_cast<const char*>(p) + lead;
  _size = length;
  _mapped = true;
  return true;
}

void ReadableFileMapping::unmap() {
  if (_base) ::munmap(_base, _baseLen);
  _base = nullptr;
  _baseLen = 0;
  _data = nullptr;
  _size = 0;
  _mapped = false;
}
