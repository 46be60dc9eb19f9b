#include "search/processors/TableSection.h"

#include <cctype>

#include "libbundle/PropertiesMap.h"
#include "search/processors/KVParser.h"
#include "util/Logger.h"
#include "util/RE.h"

namespace {
Logger gLogger("TableSection");

bool compile(const Str& text, std::unique_ptr<Regex>& out, const Str& key, Str& error) {
  try {
    out = std::make_unique<Regex>(text, true);
    return true;
  } catch (const std::exception& e) {
    error = Str::fromFormat("Bad regex for %s: %s", key.c_str(), e.what());
    return false;
  }
}
}  // namespace

bool TableSection::load(const PropertiesMap& stanza, Str& error) {
  Str v;
  for (const char* unsupported : {".run_kv", ".root_event"})
    if (stanza.get(_name + unsupported, v)) gLogger.debug("%s%s is not supported; ignored", _name.c_str(), unsupported);
  if (stanza.get(_name + ".start", v) && !v.empty() && !compile(v, _start, _name + ".start", error)) return false;
  if (stanza.get(_name + ".end", v) && !v.empty() && !compile(v, _end, _name + ".end", error)) return false;
  if (stanza.get(_name + ".member", v) && !v.empty() && !compile(v, _member, _name + ".member", error)) return false;
  if (stanza.get(_name + ".ignore", v) && !v.empty()) {
    Str t = v.trim();
    if (t == "_all_") _ignoreAll = true;
    else if (t != "_none_" && !compile(t, _ignore, _name + ".ignore", error)) return false;
  }
  if (stanza.get(_name + ".offset", v)) _offset = v.toLong(0) < 0 ? 0 : v.toLong(0);
  if (stanza.get(_name + ".linecount", v)) _lineCount = v.toLong(0) < 0 ? 0 : v.toLong(0);
  if (stanza.get(_name + ".replace", v)) {
    static const RE kPair("\\s*,?\\s*\"((?:[^\"\\\\]|\\\\.)*)\"\\s*=\\s*\"((?:[^\"\\\\]|\\\\.)*)\"");
    StringPiece rest(v.data(), v.size());
    std::string re, text;
    while (kPair.Consume(&rest, &re, &text)) {
      std::unique_ptr<Regex> r;
      if (!compile(re, r, _name + ".replace", error)) return false;
      _replace.emplace_back(std::move(r), Str(text));
    }
  }
  if (stanza.get(_name + ".tokens", v) && !v.trim().empty()) {
    std::vector<Str> items = KVParser::parseDelims(v);
    const Str kind = items.empty() ? Str() : items[0];
    if (kind == "_tokenize_") {
      _mode = TOKENS_TOKENIZE;
      _maxTokens = items.size() > 1 ? items[1].toUnsignedLong(0) : 0;
      _delims.assign(256, false);
      Str chars = items.size() > 2 ? items[2] : Str(" \t");
      for (unsigned char c : chars) _delims[c] = true;
    } else if (kind == "_align_") {
      _mode = TOKENS_ALIGN;
    } else if (kind == "_chop_") {
      _mode = TOKENS_CHOP;
      for (size_t i = 1; i < items.size(); ++i) _chops.push_back(items[i].toUnsignedLong(0));
    } else if (kind == "_regex_" && items.size() > 1) {
      _mode = TOKENS_REGEX;
      if (!compile(items[1], _tokenRe, _name + ".tokens", error)) return false;
    } else if (kind == "_token_list_") {
      _mode = TOKENS_LIST;
      _list.assign(items.begin() + 1, items.end());
    } else {
      error = Str::fromFormat("Invalid %s.tokens value '%s'", _name.c_str(), v.c_str());
      return false;
    }
  }
  return true;
}

void TableSection::replace(Str& line) const {
  Str out;
  for (const auto& [re, text] : _replace)
    if (re->replaceAll(StrSegment(line), text, out, true) > 0) line.swap(out);
}

void TableSection::words(const StrSegment& line, std::vector<Span>& out) {
  out.clear();
  size_t i = 0, n = line.size();
  while (i < n) {
    while (i < n && isspace(static_cast<unsigned char>(line[i]))) ++i;
    size_t b = i;
    while (i < n && !isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i > b) out.push_back({b, i});
  }
}

void TableSection::align(const StrSegment& line, const std::vector<Span>& header, std::vector<Span>& out) {
  out.assign(header.size(), Span{0, 0});
  if (header.empty()) return;
  std::vector<Span> ws;
  words(line, ws);
  size_t floor = 0;  // columns left of the previous word's are closed
  std::vector<bool> used(header.size(), false);
  for (const Span& w : ws) {
    size_t best = floor;
    long bestOverlap = -1;
    size_t bestGap = static_cast<size_t>(-1);
    for (size_t c = floor; c < header.size(); ++c) {
      const Span& h = header[c];
      long overlap = long(std::min(w.end, h.end)) - long(std::max(w.start, h.start));
      size_t gap = overlap > 0 ? 0 : (w.end <= h.start ? h.start - w.end : w.start - h.end);
      if (overlap > bestOverlap && overlap > 0) {
        best = c, bestOverlap = overlap, bestGap = 0;
      } else if (bestOverlap <= 0 && overlap <= 0 && gap < bestGap) {
        best = c, bestGap = gap;
      }
    }
    floor = best;
    if (!used[best]) out[best] = w, used[best] = true;
    else out[best].end = w.end;
  }
}

void TableSection::cut(const StrSegment& line, const std::vector<Span>* header, std::vector<Span>& out) const {
  out.clear();
  switch (_mode) {
    case TOKENS_TOKENIZE: {
      size_t i = 0, n = line.size();
      while (i < n) {
        while (i < n && _delims[static_cast<unsigned char>(line[i])]) ++i;
        if (i >= n) break;
        size_t b = i;
        if (_maxTokens && out.size() + 1 == _maxTokens) i = n;
        while (i < n && !_delims[static_cast<unsigned char>(line[i])]) ++i;
        out.push_back({b, i});
      }
      return;
    }
    case TOKENS_CHOP: {
      size_t prev = 0;
      for (size_t c : _chops) {
        size_t e = std::min(c, line.size());
        if (e > prev) out.push_back({prev, e});
        prev = std::max(prev, e);
      }
      if (prev < line.size()) out.push_back({prev, line.size()});
      return;
    }
    case TOKENS_REGEX: {
      StrSegment rest(line);
      RegexMatch m;
      while (!rest.empty()) {
        const char* base = rest.data();
        if (!_tokenRe->match(rest, &m, true)) break;
        const StrSegment& g = m.size() > 1 && m.getGroup(1).data() ? m.getGroup(1) : m.getGroup(0);
        if (g.data()) out.push_back({size_t(g.data() - line.data()), size_t(g.data() - line.data()) + g.size()});
        if (rest.data() == base) rest.remove_prefix(1);
      }
      return;
    }
    case TOKENS_ALIGN:
    case TOKENS_DEFAULT:
    case TOKENS_LIST:
      if (header && (_mode == TOKENS_ALIGN || _name == "body")) align(line, *header, out);
      else words(line, out);
      return;
  }
}
