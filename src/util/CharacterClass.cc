#include "util/CharacterClass.h"

const CharacterClass& CharacterClass::whitespace() {
  static constexpr CharacterClass ws(" \t\r\n\v\f");
  return ws;
}

size_t cclass_find(const CharacterClass& cls, const char* text, size_t length, size_t start,
                   bool wanted) {
  for (size_t i = start; i < length; ++i)
    if (cls.contains(text[i]) == wanted) return i;
  return CharacterClass::npos;
}

size_t cclass_rfind(const CharacterClass& cls, const char* text, size_t length, size_t start,
                    bool wanted) {
  if (length == 0) return CharacterClass::npos;
  size_t i = start < length ? start : length - 1;
  for (;;) {
    if (cls.contains(text[i]) == wanted) return i;
    if (i == 0) return CharacterClass::npos;
    --i;
  }
}
