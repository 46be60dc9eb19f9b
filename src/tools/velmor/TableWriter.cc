#include "tools/velmor/TableWriter.h"

#include <cstdlib>

#include "search/SearchResults.h"

size_t TableWriter::width(const Str& text) {
  size_t n = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++n;
  return n;
}

bool TableWriter::isNumber(const Str& text) {
  if (text.empty()) return false;
  char* end = nullptr;
  strtod(text.c_str(), &end);
  return end != nullptr && *end == '\0' && text.find_first_of("nNiIxX") == Str::npos;
}

namespace {

Str oneLine(const Str& v) {
  Str out;
  for (char c : v) {
    if (c == '\n')
      out += "; ";
    else if (c != '\r')
      out += c;
  }
  return out;
}

}  // namespace

Str TableWriter::format(const SearchResults& rows) const {
  std::vector<Str> names = _columns;
  if (names.empty()) {
    std::vector<Str> order;
    rows.getColumnOrder(order);
    for (const Str& n : order)
      if (!n.startswith('_') || n == "_time" || n == "_raw") names.push_back(n);
  }
  std::vector<sr_index_t> keys;
  for (const Str& n : names) keys.push_back(rows.keyIndex(n));
  // Cells, and which columns have any value at all.
  std::vector<std::vector<Str>> cells;
  std::vector<bool> used(names.size(), false), numeric(names.size(), true);
  for (const SearchResult* r : rows) {
    std::vector<Str> line(names.size());
    for (size_t c = 0; c < names.size(); ++c) {
      const Str* v = r->getValuePtr(keys[c]);
      if (!v) continue;
      used[c] = true;
      line[c] = oneLine(*v);
      if (!line[c].empty() && !isNumber(line[c])) numeric[c] = false;
    }
    cells.push_back(std::move(line));
  }
  std::vector<size_t> show;
  for (size_t c = 0; c < names.size(); ++c)
    if (used[c]) show.push_back(c);
  if (show.empty()) return Str();
  std::vector<size_t> w(names.size(), 0);
  for (size_t c : show) {
    w[c] = width(names[c]);
    for (const auto& line : cells) w[c] = std::max(w[c], width(line[c]));
  }
  Str out;
  auto put = [&](const std::vector<Str>& line) {
    for (size_t i = 0; i < show.size(); ++i) {
      size_t c = show[i];
      const Str& v = line[c];
      size_t pad = w[c] - width(v);
      bool last = i + 1 == show.size();
      bool right = numeric[c];
      if (i) out += "  ";
      if (right) out.append(pad, ' ');
      out += v;
      if (!right && !last) out.append(pad, ' ');
    }
    out += '\n';
  };
  put(names);
  std::vector<Str> rule(names.size());
  for (size_t c : show) rule[c] = Str(std::string(w[c], '-'));
  put(rule);
  for (const auto& line : cells) put(line);
  return out;
}
