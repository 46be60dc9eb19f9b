#include "Vocabulary.h"

#include <charconv>

#include "LineBuffer.h"
#include "Rng.h"

namespace {

// Formats the address into `buf` (at least 16 bytes) and returns its length.
size_t formatIp(char* buf, uint32_t index, uint64_t salt, bool internal) {
  const uint64_t h = Rng::mix(salt, index);
  unsigned octets[4];
  if (internal) {
    octets[0] = 10;
    octets[1] = 0;
  } else {
    // First octets of ordinary unicast space: never 0, 10, 127, 172, 192,
    // or the multicast and reserved ranges.
    static const unsigned kFirst[] = {23,  31,  37,  45,  46,  51,  62,  66,  77,  78,  80,  81,  82,
                                      83,  84,  85,  86,  87,  88,  89,  91,  93,  94,  95,  103, 104,
                                      109, 110, 111, 112, 113, 114, 115, 116, 117, 118, 119, 120, 121,
                                      122, 123, 124, 125, 141, 142, 151, 157, 176, 178, 185, 188, 193,
                                      194, 195, 197, 198, 201, 203, 209, 212, 213, 217, 218, 219, 220};
    octets[0] = kFirst[h % (sizeof kFirst / sizeof kFirst[0])];
    octets[1] = static_cast<unsigned>((h >> 8) & 0xFF);
  }
  octets[2] = static_cast<unsigned>((h >> 16) & 0xFF);
  octets[3] = static_cast<unsigned>(1 + ((h >> 24) % 254));
  char* p = buf;
  for (int i = 0; i < 4; ++i) {
    if (i) *p++ = '.';
    p = std::to_chars(p, buf + 16, octets[i]).ptr;
  }
  return static_cast<size_t>(p - buf);
}

}  // namespace

void Vocabulary::appendIp(LineBuffer& out, uint32_t index, uint64_t salt, bool internal) {
  char buf[16];
  out.put(std::string_view(buf, formatIp(buf, index, salt, internal)));
}

void Vocabulary::appendIp(std::string& out, uint32_t index, uint64_t salt, bool internal) {
  char buf[16];
  out.append(buf, formatIp(buf, index, salt, internal));
}
