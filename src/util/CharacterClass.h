// CharacterClass: a set of the 256 byte values, held as four 64-bit words.
//
// Used by the trimming and scanning functions of Str and StrSegment and by
// tokenisers that need a constant-time "is this byte one of these?" test.
// A CharacterClass owns nothing but its 32 bytes; it is a plain value that is
// safe to read from any number of threads once built.
#ifndef VELMOR_UTIL_CHARACTERCLASS_H
#define VELMOR_UTIL_CHARACTERCLASS_H

#include <cstddef>
#include <cstdint>
#include <string>

class CharacterClass {
 public:
  static constexpr size_t npos = std::string::npos;

  // The empty set.
  constexpr CharacterClass() : _bits{0, 0, 0, 0} {}

  // With positive true the set is exactly the bytes of the NUL-terminated
  // `chars`; with positive false it is every byte value except those.
  constexpr explicit CharacterClass(const char* chars, bool positive = true) : _bits{0, 0, 0, 0} {
    setAll(!positive);
    set(chars, positive);
  }
  constexpr CharacterClass(const char* chars, size_t length, bool positive) : _bits{0, 0, 0, 0} {
    setAll(!positive);
    set_multi(chars, length, positive);
  }

  constexpr void setAll(bool value) {
    const uint64_t w = value ? ~uint64_t(0) : 0;
    for (auto& b : _bits) b = w;
  }
  constexpr void set(char c, bool value = true) {
    const unsigned char u = static_cast<unsigned char>(c);
    const uint64_t mask = uint64_t(1) << (u & 63);
    if (value)
      _bits[u >> 6] |= mask;
    else
      _bits[u >> 6] &= ~mask;
  }
  // REQUIRES: chars is NUL-terminated (nullptr is taken as empty).
  constexpr void set(const char* chars, bool value = true) {
    if (!chars) return;
    for (; *chars; ++chars) set(*chars, value);
  }
  constexpr void set_multi(const char* chars, size_t length, bool value = true) {
    for (size_t i = 0; i < length; ++i) set(chars[i], value);
  }

  constexpr bool contains(unsigned char u) const { return (_bits[u >> 6] >> (u & 63)) & 1; }
  constexpr bool contains(char c) const { return contains(static_cast<unsigned char>(c)); }
  constexpr bool operator[](char c) const { return contains(c); }

  constexpr bool operator==(const CharacterClass& o) const {
    return _bits[0] == o._bits[0] && _bits[1] == o._bits[1] && _bits[2] == o._bits[2] &&
           _bits[3] == o._bits[3];
  }

  // Blank, tab, CR, LF, vertical tab, form feed: the default class of trim().
  static const CharacterClass& whitespace();

 private:
  uint64_t _bits[4];
};

// The first position at or after `start` (the last at or before `start`, for
// cclass_rfind; npos means "from the end") of text[0..length) whose membership
// in `cls` equals `wanted`, or npos when there is none.
size_t cclass_find(const CharacterClass& cls, const char* text, size_t length, size_t start,
                   bool wanted);
size_t cclass_rfind(const CharacterClass& cls, const char* text, size_t length, size_t start,
                    bool wanted);

#endif
