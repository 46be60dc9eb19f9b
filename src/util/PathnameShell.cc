// Pathname: rendering a path as a shell word, and reading one shell word.
//
// shellQuoted sorts the bytes into five kinds:
//   blank    space, tab, newline
//   dquote   " $ \            (must be escaped even inside double quotes)
//   special  # & * ; = ? [ ] |
//   squote   '
//   other    everything else
// and picks the lightest form that keeps the word whole:
//   only "other" bytes            -> as is ("" for the empty path)
//   any blank                     -> "..." with \ before each dquote byte
//   no squote, and special xor dquote -> '...'
//   otherwise                     -> \ before each special, dquote and squote
//                                    byte, no quotes
#include "util/Pathname.h"

namespace {

enum ByteKind { KIND_OTHER, KIND_BLANK, KIND_DQUOTE, KIND_SPECIAL, KIND_SQUOTE };

ByteKind kindOf(char c) {
  switch (c) {
    case ' ':
    case '\t':
    case '\n':
      return KIND_BLANK;
    case '"':
    case '$':
    case '\\':
      return KIND_DQUOTE;
    case '#':
    case '&':
    case '*':
    case ';':
    case '=':
    case '?':
    case '[':
    case ']':
    case '|':
      return KIND_SPECIAL;
    case '\'':
      return KIND_SQUOTE;
    default:
      return KIND_OTHER;
  }
}

}  // namespace

Str Pathname::shellQuoted() const {
  if (empty()) return Str("\"\"");
  bool blank = false, dquote = false, special = false, squote = false;
  for (char c : *this) {
    switch (kindOf(c)) {
      case KIND_BLANK: blank = true; break;
      case KIND_DQUOTE: dquote = true; break;
      case KIND_SPECIAL: special = true; break;
      case KIND_SQUOTE: squote = true; break;
      case KIND_OTHER: break;
    }
  }
  if (!blank && !dquote && !special && !squote) return Str(*this);

  Str out;
  out.reserve(size() + 8);
  if (blank) {
    out.push_back('"');
    for (char c : *this) {
      if (kindOf(c) == KIND_DQUOTE) out.push_back('\\');
      out.push_back(c);
    }
    out.push_back('"');
  } else if (!squote && special != dquote) {
    out.push_back('\'');
    out.append(*this);
    out.push_back('\'');
  } else {
    for (char c : *this) {
      if (kindOf(c) != KIND_OTHER) out.push_back('\\');
      out.push_back(c);
    }
  }
  return out;
}

bool Pathname::splitArgShellQuoted(const StrSegment& text, Str& first, Str& rest) {
  const size_t n = text.size();
  size_t i = 0;
  while (i < n && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
  if (i == n) return false;  // no word

  Str word;
  while (i < n) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n') break;
    if (c == '\'') {
      const size_t close = text.find('\'', i + 1);
      if (close == StrSegment::npos) return false;
      word.append(text.data() + i + 1, close - i - 1);
      i = close + 1;
    } else if (c == '"') {
      ++i;
      for (;;) {
        if (i >= n) return false;
        const char d = text[i];
        if (d == '"') {
          ++i;
          break;
        }
        if (d == '\\' && i + 1 < n) {
          const char e = text[i + 1];
          if (e == '$' || e == '`' || e == '"' || e == '\\') {
            word.push_back(e);
            i += 2;
            continue;
          }
          if (e == '\n') {  // line continuation
            i += 2;
            continue;
          }
        }
        word.push_back(d);
        ++i;
      }
    } else if (c == '\\') {
      if (i + 1 >= n) return false;  // trailing backslash
      if (text[i + 1] != '\n') word.push_back(text[i + 1]);  // "\\\n" continues the line
      i += 2;
    } else {
      word.push_back(c);
      ++i;
    }
  }
  // text may alias first or rest: build both before assigning.
  Str tail(text.data() + i, n - i);
  first.swap(word);
  rest.swap(tail);
  return true;
}
