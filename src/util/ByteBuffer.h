// ByteBuffer: a block of bytes that grows without zero-filling, for large
// buffers handed from owner to owner and reused (a raw data file's image
// goes from its writer to the compressor and back). Growing keeps the
// first `size` bytes; the rest of a new block is uninitialised.
//
// Ownership: owns its block; movable, not copyable. Threads: one owner at a
// time.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& o) noexcept : size(o.size), _data(std::move(o._data)), _capacity(o._capacity) {
    o._capacity = o.size = 0;
  }
  ByteBuffer& operator=(ByteBuffer&& o) noexcept {
    _data = std::move(o._data);
    _capacity = o._capacity;
    size = o.size;
    o._capacity = o.size = 0;
    return *this;
  }

  char* data() { return _data.get(); }
  const char* data() const { return _data.get(); }
  size_t capacity() const { return _capacity; }
  // Makes the block hold at least n bytes, keeping the first `size`.
  void reserve(size_t n) {
    if (n <= _capacity) return;
    std::unique_ptr<char[]> bigger(new char[n]);
    if (size) std::memcpy(bigger.get(), _data.get(), size);
    _data = std::move(bigger);
    _capacity = n;
  }

  size_t size = 0;  // bytes in use, up to capacity(); the owner keeps it

 private:
  std::unique_ptr<char[]> _data;
  size_t _capacity = 0;
};
