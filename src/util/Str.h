// Str: the system's string.
//
// Str derives from std::string and can be used wherever a std::string is
// expected; it adds strict and defaulting conversions to numbers and truth
// values, printf-style formatting, trimming by CharacterClass, and a few
// helpers for handing the text to C code. A Str owns its bytes. Thread safety
// is that of std::string: one writer or many readers per object.
//
// Conversions:
//   tryTo...(out) return false on failure, and `out` is then unusable.
//   to...(default) return `default` on failure.
//   Integers are read in base 10 by strtol & co: leading blanks are allowed
//   (" 12" is 12), trailing text is not ("12 " fails), overflow fails.
//   tryToDouble additionally wants the first byte to be a digit or '-', so
//   "+1" and ".5" fail, and fails on any errno from strtod.
//   Truth words, any case: "true" "yes" "1" / "false" "no" "0".
#ifndef VELMOR_UTIL_STR_H
#define VELMOR_UTIL_STR_H

#include <cstdarg>
#include <cstddef>
#include <string>
#include <utility>

#include "util/CharacterClass.h"

class StrSegment;

#define VELMOR_PRINTF_LIKE(fmt_index, first_arg) \
  __attribute__((format(printf, fmt_index, first_arg)))

class Str : public std::string {
 public:
  using std::string::string;
  Str() = default;
  Str(const std::string& s) : std::string(s) {}
  Str(std::string&& s) noexcept : std::string(std::move(s)) {}
  explicit Str(const StrSegment& seg);

  Str& operator=(const std::string& s) {
    std::string::operator=(s);
    return *this;
  }
  Str& operator=(std::string&& s) noexcept {
    std::string::operator=(std::move(s));
    return *this;
  }
  Str& operator=(const char* s) {
    std::string::operator=(s);
    return *this;
  }
  Str& operator=(char c) {
    std::string::operator=(c);
    return *this;
  }
  Str& operator=(const StrSegment& seg);

  using std::string::operator+=;
  Str& operator+=(const StrSegment& seg);

  // --- conversions -------------------------------------------------------
  bool tryToBool(bool& out) const;
  bool tryToLong(long& out) const;
  bool tryToLongLong(long long& out) const;
  bool tryToUnsignedLong(unsigned long& out) const;
  bool tryToDouble(double& out) const;

  // `defaultIfEmpty` for "", `defaultIfNotEmpty` for any other non-truth word.
  bool toBool(bool defaultIfEmpty, bool defaultIfNotEmpty) const;
  long toLong(long def) const;
  long long toLongLong(long long def) const;
  unsigned long toUnsignedLong(unsigned long def) const;
  double toDouble(double def) const;

  // --- formatting ----------------------------------------------------------
  // format/vformat replace the contents; appendFormat/appendVformat append.
  Str& format(const char* fmt, ...) VELMOR_PRINTF_LIKE(2, 3);
  Str& vformat(const char* fmt, va_list ap) VELMOR_PRINTF_LIKE(2, 0);
  Str& appendFormat(const char* fmt, ...) VELMOR_PRINTF_LIKE(2, 3);
  Str& appendVformat(const char* fmt, va_list ap) VELMOR_PRINTF_LIKE(2, 0);
  // A new Str holding the formatted text.
  static Str fromFormat(const char* fmt, ...) VELMOR_PRINTF_LIKE(1, 2);

  Str& append_double(double v);              // "%lf"
  Str& append_longlong(long long v);         // "%lld"
  Str& append_unsignedlonglong(unsigned long long v);  // "%llu"

  // --- inspection and trimming ---------------------------------------------
  Str trim(const CharacterClass& cls = CharacterClass::whitespace(), bool left = true,
           bool right = true) const;
  Str& trimInPlace(const CharacterClass& cls = CharacterClass::whitespace(), bool left = true,
                   bool right = true);

  bool startswith(const StrSegment& prefix) const;
  bool startswith(const char* prefix) const;
  bool startswith(char c) const { return !empty() && front() == c; }
  // Does the first byte belong to `cls`? False for the empty string.
  bool startswith(const CharacterClass& cls) const { return !empty() && cls.contains(front()); }
  bool endswith(const StrSegment& suffix) const;
  bool endswith(const char* suffix) const;
  bool endswith(char c) const { return !empty() && back() == c; }
  bool endswith(const CharacterClass& cls) const { return !empty() && cls.contains(back()); }

  size_t count_char(char c) const;
  bool containsWhitespace() const;

  // Heap copies, NUL-terminated: strdup by malloc (free it), copystr by
  // new[] (delete[] it).
  char* strdup() const;
  char* copystr() const;
  void appendTo(std::string& out) const { out.append(data(), size()); }
};

// --- number formatting as free functions ------------------------------------
Str ToString(int v);
Str ToString(unsigned v);
Str ToString(long v);
Str ToString(unsigned long v);
Str ToString(long long v);
Str ToString(unsigned long long v);
Str ToString(double v);

// --- free functions over text ------------------------------------------------
// ASCII lower-casing; other bytes are unchanged.
Str lowercase(const StrSegment& text);
void lowercaseInPlace(std::string& text);
// Replaces every occurrence of `from` (left to right, not overlapping) by
// `to`; returns the number of replacements. An empty `from` replaces nothing.
size_t replaceAllString(Str& text, const StrSegment& from, const StrSegment& to);

// --- concatenation between Str, StrSegment, const char* and char -------------
Str operator+(const Str& a, const Str& b);
Str operator+(const Str& a, const std::string& b);
Str operator+(const std::string& a, const Str& b);
Str operator+(const Str& a, std::string&& b);
Str operator+(Str&& a, std::string&& b);
Str operator+(std::string&& a, const Str& b);
Str operator+(const Str& a, const StrSegment& b);
Str operator+(const Str& a, const char* b);
Str operator+(const Str& a, char b);
Str operator+(Str&& a, const Str& b);
Str operator+(Str&& a, const std::string& b);
Str operator+(Str&& a, const StrSegment& b);
Str operator+(Str&& a, const char* b);
Str operator+(Str&& a, char b);
Str operator+(const char* a, const Str& b);
Str operator+(char a, const Str& b);

// Str hashes as its bytes, so it keys unordered containers.
template <>
struct std::hash<Str> : std::hash<std::string> {};

#endif
