#include "pipeline/analysis/StringTemplate.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

StringTemplate::StringTemplate(const Str& text) : _text(text) {
  Str literal;
  size_t i = 0, n = text.size();
  while (i < n) {
    char c = text[i];
    if (c != '$' || i + 1 >= n) {
      literal += c;
      ++i;
      continue;
    }
    char next = text[i + 1];
    if (next == '$') {
      literal += '$';
      i += 2;
      continue;
    }
    if (!isDigit(next) || next == '0') {
      literal += c;
      ++i;
      continue;
    }
    unsigned group = static_cast<unsigned>(next - '0');
    i += 2;
    if (i < n && isDigit(text[i])) {
      group = group * 10 + static_cast<unsigned>(text[i] - '0');
      ++i;
    }
    _pieces.push_back({std::move(literal), group});
    literal.clear();
    if (group > _maxGroup) _maxGroup = group;
  }
  if (!literal.empty()) _pieces.push_back({std::move(literal), 0});
}

void StringTemplate::interpolate(const StringPiece* groups, size_t count, Str& out) const {
  for (const Piece& p : _pieces) {
    out += p.literal;
    if (p.group == 0 || p.group > count) continue;
    const StringPiece& g = groups[p.group - 1];
    if (g.data() != nullptr) out.append(g.data(), g.size());
  }
}
