#include "util/Base64.h"

#include <cassert>

#include "util/StrSegment.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct DecodeTable {
  uint8_t v[256];
  constexpr DecodeTable() : v{} {
    for (auto& x : v) x = 255;
    for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
  }
};
constexpr DecodeTable kDecode;

}  // namespace

uint8_t Base64::digitValue(char c) { return kDecode.v[static_cast<unsigned char>(c)]; }

Str Base64::encode(const void* bytes, size_t length) {
  const unsigned char* p = static_cast<const unsigned char*>(bytes);
  Str out;
  out.reserve((length + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    const uint32_t g = (uint32_t(p[i]) << 16) | (uint32_t(p[i + 1]) << 8) | p[i + 2];
    out.push_back(kAlphabet[(g >> 18) & 63]);
    out.push_back(kAlphabet[(g >> 12) & 63]);
    out.push_back(kAlphabet[(g >> 6) & 63]);
    out.push_back(kAlphabet[g & 63]);
  }
  const size_t rest = length - i;
  if (rest) {
    uint32_t g = uint32_t(p[i]) << 16;
    if (rest == 2) g |= uint32_t(p[i + 1]) << 8;
    out.push_back(kAlphabet[(g >> 18) & 63]);
    out.push_back(kAlphabet[(g >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(g >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

bool Base64::decode(const StrSegment& text, Str& out) {
  uint32_t acc = 0;
  int bits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '=') break;
    const uint8_t v = digitValue(c);
    if (v == 255) return false;
    acc = (acc << 6) | v;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  return true;
}

void toBase64(uint64_t number, char* buffer, unsigned nchar) {
  assert(nchar <= Base64::kMaxNumberDigits);
  for (unsigned i = nchar; i-- > 0;) {
    buffer[i] = kAlphabet[number & 63];
    number >>= 6;
  }
}

bool fromBase64(uint64_t* number, const char* text, unsigned nchar) {
  assert(nchar <= Base64::kMaxNumberDigits);
  uint64_t n = 0;
  for (unsigned i = 0; i < nchar; ++i) {
    const uint8_t v = Base64::digitValue(text[i]);
    if (v == 255) return false;
    n = (n << 6) | v;
  }
  *number = n;
  return true;
}
