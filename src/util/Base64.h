// Base64: RFC 4648 base64 with "=" padding, plus a fixed-width form for
// integers over the same alphabet.
//
// All functions are static and pure; callable from any thread.
//
// decode() reads through a 256-entry table in which a byte outside the
// alphabet is 255; it stops at the first "=" and fails on any bad byte before
// it. Bits of an incomplete final group are dropped.
//
// toBase64(number, buffer, nchar) writes `nchar` digits (at most 11, enough
// for 64 bits), most significant first, no padding and no terminator;
// fromBase64(&number, text, nchar) reads them back and returns false at a
// character outside the alphabet.
#ifndef VELMOR_UTIL_BASE64_H
#define VELMOR_UTIL_BASE64_H

#include <cstddef>
#include <cstdint>

#include "util/Str.h"

class Base64 {
 public:
  static constexpr unsigned kMaxNumberDigits = 11;

  static Str encode(const void* bytes, size_t length);
  // Appends the decoded bytes to `out`; false on a byte outside the alphabet.
  static bool decode(const StrSegment& text, Str& out);

  // The value of one alphabet byte, or 255.
  static uint8_t digitValue(char c);
};

// REQUIRES: nchar <= Base64::kMaxNumberDigits.
void toBase64(uint64_t number, char* buffer, unsigned nchar);
bool fromBase64(uint64_t* number, const char* text, unsigned nchar);

#endif
