#include "libbundle/SubstituteEnvs.h"

#include <cctype>
#include <cstdlib>

Str substituteEnvs(const Str& text) {
  if (text.find('$') == Str::npos) return text;
  Str out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    char c = text[i];
    if (c != '$') {
      out += c;
      ++i;
      continue;
    }
    size_t j = i + 1;
    while (j < text.size() && (isalnum((unsigned char)text[j]) || text[j] == '_')) ++j;
    if (j == i + 1) {
      out += c;
      ++i;
      continue;
    }
    Str name = text.substr(i + 1, j - i - 1);
    const char* value = getenv(name.c_str());
    if (value != nullptr) {
      out += value;
    } else {
      out.append(text, i, j - i);
    }
    i = j;
  }
  return out;
}
