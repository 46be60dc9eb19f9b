// Integer codings of the slice files: swaps, variable-byte words, packed bit
// arrays.
#include "searchthing/codes.h"

#include <assert.h>

uint32_t st_htonl(uint32_t v) { return __builtin_bswap32(v); }
uint32_t st_ntohl(uint32_t v) { return __builtin_bswap32(v); }
uint64_t st_htonll(uint64_t v) { return __builtin_bswap64(v); }
uint64_t st_ntohll(uint64_t v) { return __builtin_bswap64(v); }

// Variable-byte word, 32-bit form:
//   OFFSET  SIZE  MEANING
//   0..3    1     bits 7k..7k+6 of the value in bits 0-6; bit 7 set = more
//   4       1     bits 28..31 of the value; bit 7 always clear
int st_encode_to_vbe(unsigned char* dst, uint32_t value) { return st_encode_to_vbe_quick(dst, value); }

// Variable-byte word, 64-bit form:
//   OFFSET  SIZE  MEANING
//   0..7    1     bits 7k..7k+6 of the value in bits 0-6; bit 7 set = more
//   8       1     bits 56..63 of the value, all eight (no continuation flag)
int st_encode_to_vbe_ll(unsigned char* dst, uint64_t value) {
  int n = 0;
  while (n < 8) {
    if (value < 0x80) {
      dst[n++] = (unsigned char)value;
      return n;
    }
    dst[n++] = (unsigned char)((value & 0x7F) | 0x80);
    value >>= 7;
  }
  dst[n++] = (unsigned char)value;
  return n;
}

int st_decode_from_vbe(uint32_t* result, const unsigned char* src) {
  uint32_t v = 0;
  for (int n = 0; n < 4; ++n) {
    v |= (uint32_t)(src[n] & 0x7F) << (7 * n);
    if (!(src[n] & 0x80)) {
      *result = v;
      return n + 1;
    }
  }
  assert(!(src[4] & 0x80));
  v |= (uint32_t)src[4] << 28;
  *result = v;
  return 5;
}

int st_decode_from_vbe_ll(uint64_t* result, const unsigned char* src) {
  uint64_t v = 0;
  for (int n = 0; n < 8; ++n) {
    v |= (uint64_t)(src[n] & 0x7F) << (7 * n);
    if (!(src[n] & 0x80)) {
      *result = v;
      return n + 1;
    }
  }
  v |= (uint64_t)src[8] << 56;
  *result = v;
  return 9;
}

int st_decode_from_vbe_safe(uint32_t* result, const unsigned char* src, size_t avail) {
  uint32_t v = 0;
  for (size_t n = 0; n < 5; ++n) {
    if (n >= avail) return 0;
    unsigned char b = src[n];
    if (n == 4) {
      if (b & 0xF0) return 0;  // more than 32 bits, or a continuation flag
      v |= (uint32_t)b << 28;
      *result = v;
      return 5;
    }
    v |= (uint32_t)(b & 0x7F) << (7 * n);
    if (!(b & 0x80)) {
      *result = v;
      return (int)n + 1;
    }
  }
  return 0;
}

int st_skip_vbe_word(const unsigned char* src) {
  if (!(src[0] & 0x80)) return 1;
  if (!(src[1] & 0x80)) return 2;
  if (!(src[2] & 0x80)) return 3;
  if (!(src[3] & 0x80)) return 4;
  if (!(src[4] & 0x80)) return 5;
  if (!(src[5] & 0x80)) return 6;
  if (!(src[6] & 0x80)) return 7;
  return (src[7] & 0x80) ? 9 : 8;
}

int st_skip_vbe_word2(const unsigned char* src) {
  int n = 0;
  while (n < 8 && (src[n] & 0x80)) ++n;
  return n + 1;
}

// Packed array slot i of nbits bits; one extra bit (bit nbits of the value)
// lands on the lowest bit of slot i+1.
void encode_to_byte_str(unsigned char* arr, uint32_t value, uint32_t i, uint32_t nbits) {
  assert(nbits != 0 && "nbits != 0");
  st_bits_put(arr, i, nbits, value);
}

uint32_t decode_from_byte_str(const unsigned char* arr, uint32_t i, uint32_t nbits) {
  assert(nbits != 0 && "nbits != 0");
  return st_bits_get(arr, i, nbits);
}

uint32_t log2n(uint64_t v) {
  uint32_t x = (uint32_t)v;
  if (x == 0) return 1;
  return 32u - (uint32_t)__builtin_clz(x);
}
