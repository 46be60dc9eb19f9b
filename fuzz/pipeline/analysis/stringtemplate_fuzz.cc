// Fuzz target: bytes -> StringTemplate. Nothing may crash; no template refers
// to a group above 99; with no groups given only literal text comes out, and
// never more of it than the template holds; giving empty groups changes
// nothing; and the input with every "$" doubled reads back as the input,
// with no group in it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "pipeline/analysis/StringTemplate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Str text(reinterpret_cast<const char*>(data), size);
  StringTemplate t(text);
  if (t.maxGroup() > 99) __builtin_trap();

  Str bare;
  t.interpolate(nullptr, 0, bare);
  if (bare.size() > text.size()) __builtin_trap();

  std::vector<StringPiece> empty(99, StringPiece(""));
  Str withEmpty;
  t.interpolate(empty.data(), empty.size(), withEmpty);
  if (withEmpty != bare) __builtin_trap();

  std::vector<StringPiece> named(99, StringPiece("#"));
  Str withGroups;
  t.interpolate(named.data(), named.size(), withGroups);
  if ((t.maxGroup() > 0) != (withGroups.size() > bare.size())) __builtin_trap();

  Str escaped;
  for (char c : text) {
    escaped += c;
    if (c == '$') escaped += '$';
  }
  StringTemplate literal(escaped);
  Str back;
  literal.interpolate(named.data(), named.size(), back);
  if (literal.maxGroup() != 0 || back != text) __builtin_trap();
  return 0;
}
