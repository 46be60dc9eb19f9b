#include "search/processors/PatternBuilder.h"

#include <algorithm>

#include "libbundle/StringMgr.h"
#include "util/Exceptions.h"

namespace {

bool nameStart(char c) { return isalpha(static_cast<unsigned char>(c)) != 0; }
bool nameChar(char c) { return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

}  // namespace

std::vector<Str> PatternBuilder::getTokens(const Str& p) {
  std::vector<Str> out;
  size_t i = 0;
  while (i < p.size()) {
    char c = p[i];
    if (isspace(static_cast<unsigned char>(c))) {
      ++i;
    } else if (nameStart(c)) {
      size_t j = i;
      while (j < p.size() && nameChar(p[j])) ++j;
      out.push_back(Str(p.substr(i, j - i)));
      i = j;
    } else if (c == '[' && i + 1 < p.size() && p[i + 1] == '^') {
      size_t j = p.find(']', i);
      if (j == Str::npos) j = p.size() - 1;
      out.push_back(Str(p.substr(i, j - i + 1)));
      i = j + 1;
    } else {
      out.push_back(Str(1, c));
      ++i;
    }
  }
  return out;
}

struct PatternBuilder::Parser {
  const Str& pattern;
  const std::map<Str, char>& letters;
  std::vector<Str> toks;
  size_t pos = 0;

  SearchProcessorException invalid(const char* why) const {
    return SearchProcessorException(
        Str::fromFormat(StringMgr::str("TRANSAM_BAD_PATTERN__S_S").c_str(), pattern.c_str(), why).c_str());
  }
  char letterOf(const Str& name) const {
    auto it = letters.find(name);
    if (it == letters.end())
      throw SearchProcessorException(
          Str::fromFormat(StringMgr::str("TRANSAM_UNABLE_TO_FIND_ALIAS__S_S").c_str(), name.c_str(), pattern.c_str())
              .c_str());
    return it->second;
  }
  bool at(const char* t) const { return pos < toks.size() && toks[pos] == t; }
  bool atAtomStart() const {
    return pos < toks.size() && (nameStart(toks[pos][0]) || toks[pos] == "(" || toks[pos] == "." ||
                                 toks[pos].compare(0, 2, "[^") == 0);
  }

  // and := ordered ("&" ordered)*
  Str convertAnd() {
    std::vector<Str> parts{convertOrdered()};
    while (at("&")) {
      ++pos;
      parts.push_back(convertOrdered());
    }
    if (parts.size() == 1) return parts[0];
    if (parts.size() > 4) throw invalid("at most four parts may be joined with '&'");
    std::vector<size_t> order(parts.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    Str out = "(?:";
    bool first = true;
    do {
      if (!first) out += "|";
      first = false;
      for (size_t i = 0; i < order.size(); ++i) out += (i ? ".*?" : "") + parts[order[i]];
    } while (std::next_permutation(order.begin(), order.end()));
    return out + ")";
  }
  // ordered := adjacent adjacent*   (joined by a captured gap)
  Str convertOrdered() {
    Str out = convertAdjacent();
    while (atAtomStart()) out += "(.*?)" + convertAdjacent();
    return out;
  }
  // adjacent := postfix ("," postfix)*
  Str convertAdjacent() {
    Str out = convertPostfix();
    while (at(",")) {
      ++pos;
      out += convertPostfix();
    }
    return out;
  }
  Str convertPostfix() {
    Str out = convertInner();
    while (at("*") || at("+") || at("?")) out += toks[pos++];
    return out;
  }
  // atom := name | "." | "[^" names "]" | "(" and ")"
  Str convertInner() {
    if (pos >= toks.size()) throw invalid("it ends where an alias was expected");
    const Str t = toks[pos++];
    if (t == ".") return ".";
    if (t == "(") {
      Str inner = convertAnd();
      if (!at(")")) throw invalid("a '(' is not closed");
      ++pos;
      return "(?:" + inner + ")";
    }
    if (t.compare(0, 2, "[^") == 0) {
      if (t.back() != ']') throw invalid("a '[^' is not closed");
      Str out = "[^";
      for (const Str& n : getTokens(Str(t.substr(2, t.size() - 3)))) {
        if (!nameStart(n[0])) throw invalid("only alias names may stand in '[^ ]'");
        out += letterOf(n);
      }
      if (out.size() == 2) throw invalid("'[^ ]' names no alias");
      return out + "]";
    }
    if (nameStart(t[0])) return Str(1, letterOf(t));
    throw invalid("an alias was expected");
  }
};

Str PatternBuilder::convert(const Str& pattern, const std::map<Str, char>& letters) {
  Parser p{pattern, letters, getTokens(pattern)};
  if (p.toks.empty()) throw p.invalid("it is empty");
  Str out = p.convertAnd();
  if (p.pos != p.toks.size()) throw p.invalid("unexpected text after the end");
  return out;
}
