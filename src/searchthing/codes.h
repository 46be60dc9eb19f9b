// Integer codings used by every slice file: byte-order swaps, variable-byte
// words (7 bits per byte, lowest group first, bit 7 = another byte follows),
// packed fixed-width bit arrays and log2n.
//
// Stateless functions over caller-owned memory; callable from any thread.
#ifndef VELMOR_SEARCHTHING_CODES_H
#define VELMOR_SEARCHTHING_CODES_H

#include <stddef.h>
#include <stdint.h>

// Unconditional swaps: the host is little-endian, files are big-endian.
uint32_t st_htonl(uint32_t v);
uint32_t st_ntohl(uint32_t v);
uint64_t st_htonll(uint64_t v);
uint64_t st_ntohll(uint64_t v);

// Big-endian loads and stores at any alignment.
static inline uint32_t st_get_be32(const void* p) {
  const unsigned char* b = (const unsigned char*)p;
  return ((uint32_t)b[0] << 24) | ((uint32_t)b[1] << 16) | ((uint32_t)b[2] << 8) | (uint32_t)b[3];
}
static inline void st_put_be32(void* p, uint32_t v) {
  unsigned char* b = (unsigned char*)p;
  b[0] = (unsigned char)(v >> 24);
  b[1] = (unsigned char)(v >> 16);
  b[2] = (unsigned char)(v >> 8);
  b[3] = (unsigned char)v;
}
static inline uint64_t st_get_be64(const void* p) {
  const unsigned char* b = (const unsigned char*)p;
  return ((uint64_t)st_get_be32(b) << 32) | st_get_be32(b + 4);
}
static inline void st_put_be64(void* p, uint64_t v) {
  unsigned char* b = (unsigned char*)p;
  st_put_be32(b, (uint32_t)(v >> 32));
  st_put_be32(b + 4, (uint32_t)v);
}

// Variable-byte words. A 32-bit word is 1 to 5 bytes (the fifth byte holds
// bits 28..31 and never has bit 7 set); a 64-bit word is 1 to 9 bytes (the
// ninth byte holds bits 56..63 whole, without a continuation flag).
// REQUIRES: dst has room for the longest word.
int st_encode_to_vbe(unsigned char* dst, uint32_t value);
int st_encode_to_vbe_ll(unsigned char* dst, uint64_t value);
// Return the number of bytes read. A fifth byte with bit 7 set is an
// assertion failure in st_decode_from_vbe.
int st_decode_from_vbe(uint32_t* result, const unsigned char* src);
int st_decode_from_vbe_ll(uint64_t* result, const unsigned char* src);
// Bounded decode for untrusted bytes: reads at most `avail` bytes. Returns
// the bytes read, or 0 if the word is cut off or malformed.
int st_decode_from_vbe_safe(uint32_t* result, const unsigned char* src, size_t avail);
// st_encode_to_vbe, inline.
static inline int st_encode_to_vbe_quick(unsigned char* dst, uint32_t value) {
  int n = 0;
  while (value >= 0x80) {
    dst[n++] = (unsigned char)((value & 0x7F) | 0x80);
    value >>= 7;
  }
  dst[n++] = (unsigned char)value;
  return n;
}
// st_decode_from_vbe_safe with the one-byte word, by far the most common,
// decoded inline.
static inline int st_decode_from_vbe_quick(uint32_t* result, const unsigned char* src, size_t avail) {
  if (avail > 0 && src[0] < 0x80) {
    *result = src[0];
    return 1;
  }
  return st_decode_from_vbe_safe(result, src, avail);
}
// Length of the word at src, 1 to 9 (the 64-bit form's rule).
int st_skip_vbe_word(const unsigned char* src);
int st_skip_vbe_word2(const unsigned char* src);

// Packed bit arrays: value i occupies bits i*nbits.. (bit p is bit p&7 of
// byte p>>3). Both functions touch nbits+1 bits: a store also writes bit
// `nbits` of the value (0 for values that fit) into the lowest bit of slot
// i+1, so writers store in ascending order and arrays have one spare bit.
// REQUIRES: nbits != 0 (asserted), nbits <= 32.
void encode_to_byte_str(unsigned char* arr, uint32_t value, uint32_t i, uint32_t nbits);
uint32_t decode_from_byte_str(const unsigned char* arr, uint32_t i, uint32_t nbits);

// The same two without the nbits assertion, inline for loops over many
// values. Both work on the (at most five) bytes that hold slot i's nbits + 1
// bits, whole bytes at a time. REQUIRES: 1 <= nbits <= 32.
static inline uint64_t st_bits_load(const unsigned char* b, unsigned n) {
  uint64_t w = 0;
  for (unsigned k = 0; k < n; ++k) w |= (uint64_t)b[k] << (8 * k);
  return w;
}
static inline void st_bits_put(unsigned char* arr, uint32_t i, uint32_t nbits, uint32_t value) {
  uint64_t p = (uint64_t)i * nbits;
  unsigned char* b = arr + (p >> 3);
  unsigned shift = (unsigned)(p & 7), n = (shift + nbits + 1 + 7) >> 3;
  uint64_t mask = (((uint64_t)1 << (nbits + 1)) - 1) << shift;
  uint64_t w = (st_bits_load(b, n) & ~mask) | (((uint64_t)value << shift) & mask);
  for (unsigned k = 0; k < n; ++k) b[k] = (unsigned char)(w >> (8 * k));
}
static inline uint32_t st_bits_get(const unsigned char* arr, uint32_t i, uint32_t nbits) {
  uint64_t p = (uint64_t)i * nbits;
  unsigned shift = (unsigned)(p & 7), n = (shift + nbits + 1 + 7) >> 3;
  return (uint32_t)((st_bits_load(arr + (p >> 3), n) >> shift) & (((uint64_t)1 << nbits) - 1));
}

// Bits needed to hold the low 32 bits of v: floor(log2)+1, and 1 for 0.
uint32_t log2n(uint64_t v);

#endif
