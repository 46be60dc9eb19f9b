#include "tools/velmor/SearchText.h"
#include "util/StrSegment.h"

#include <cctype>

#include "pipeline/indexer/TimeParser.h"

namespace {

// The words of `text` up to the first '|' outside quotes; quoted runs stay
// one word (quotes kept).
std::vector<Str> firstCommandWords(const Str& text) {
  std::vector<Str> words;
  Str cur;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '"') quoted = !quoted;
    if (!quoted && c == '|') break;
    if (!quoted && std::isspace(static_cast<unsigned char>(c))) {
      if (!cur.empty()) words.push_back(cur);
      cur.clear();
      continue;
    }
    if (c == '\\' && i + 1 < text.size()) {
      cur += c;
      c = text[++i];
    }
    cur += c;
  }
  if (!cur.empty()) words.push_back(cur);
  return words;
}

}  // namespace

Str SearchText::normalize(const Str& text, const std::function<bool(const Str&)>& isCommand) {
  Str t = text.trim();
  if (t.empty() || t[0] == '|') return t;
  size_t end = 0;
  while (end < t.size() && !std::isspace(static_cast<unsigned char>(t[end])) && t[end] != '|') ++end;
  Str first = lowercase(StrSegment(t.data(), end));
  if (isCommand(first)) return t;
  return "search " + t;
}

std::vector<Str> SearchText::highlightTerms(const Str& search) {
  std::vector<Str> words = firstCommandWords(search.trim());
  std::vector<Str> out;
  for (size_t i = 0; i < words.size(); ++i) {
    Str w = words[i];
    if (i == 0 && lowercase(w) == "search") continue;
    if (w == "NOT") {
      ++i;  // what is searched against is not coloured
      continue;
    }
    if (w == "AND" || w == "OR") continue;
    if (w.find('=') != Str::npos || w.find("::") != Str::npos || w.find('<') != Str::npos ||
        w.find('>') != Str::npos)
      continue;
    Str clean;
    for (char c : w)
      if (c != '"' && c != '(' && c != ')' && c != '*' && c != '\\') clean += c;
    if (clean.empty()) continue;
    bool seen = false;
    for (const Str& o : out) seen = seen || lowercase(o) == lowercase(clean);
    if (!seen) out.push_back(clean);
  }
  return out;
}

bool SearchText::parseTime(const Str& text, time_t now, int64_t& out) {
  Str t = text.trim();
  if (t.empty()) return false;
  return TimeParser::parseTime(t, Str(), now, out);
}
