// Hash functions for C strings, for hash tables whose layout must not change
// between builds. Pure functions; callable from any thread.
//
//   djb2_hash: h = 5381, then h = h * 33 + c for each byte c taken as a
//              signed char (so bytes >= 0x80 subtract).
//   std_hash:  h = 0,    then h = h * 5 + c  for each byte c taken as a
//              signed char.
// Arithmetic wraps modulo 2^64.
#ifndef VELMOR_UTIL_HASH_H
#define VELMOR_UTIL_HASH_H

#include <cstddef>
#include <cstdint>

inline uint64_t djb2_hash(const char* s, size_t len) {
  uint64_t h = 5381;
  for (size_t i = 0; i < len; ++i)
    h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(s[i])));
  return h;
}

// REQUIRES: s is NUL-terminated.
inline uint64_t djb2_hash(const char* s) {
  uint64_t h = 5381;
  for (; *s; ++s)
    h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*s)));
  return h;
}

inline uint64_t std_hash(const char* s, size_t len) {
  uint64_t h = 0;
  for (size_t i = 0; i < len; ++i)
    h = h * 5 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(s[i])));
  return h;
}

// REQUIRES: s is NUL-terminated.
inline uint64_t std_hash(const char* s) {
  uint64_t h = 0;
  for (; *s; ++s)
    h = h * 5 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*s)));
  return h;
}

#endif
