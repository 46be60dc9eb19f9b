#include "search/processors/KVParser.h"

#include <cctype>

#include "search/processors/ResultInserter.h"
#include "util/Logger.h"

namespace {
Logger gLogger("KVParser");

char unescape(char c) {
  switch (c) {
    case 't': return '\t';
    case 'n': return '\n';
    case 'r': return '\r';
    default: return c;
  }
}
}  // namespace

std::vector<Str> KVParser::parseDelims(const Str& text) {
  std::vector<Str> out;
  size_t i = 0, n = text.size();
  while (i < n) {
    while (i < n && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i >= n) break;
    Str set;
    if (text[i] == '"') {
      ++i;
      while (i < n && text[i] != '"') {
        if (text[i] == '\\' && i + 1 < n) ++i, set += unescape(text[i]);
        else set += text[i];
        ++i;
      }
      ++i;  // closing quote
      while (i < n && text[i] != ',') ++i;
    } else {
      while (i < n && text[i] != ',') {
        if (text[i] == '\\' && i + 1 < n) ++i, set += unescape(text[i]);
        else set += text[i];
        ++i;
      }
      set.trimInPlace();
    }
    if (i < n && text[i] == ',') ++i;
    out.push_back(set);
  }
  return out;
}

bool KVParser::init(const Str& delims, const Str& fields, const Str& name, Str* error) {
  std::vector<Str> sets = parseDelims(delims);
  _fields.clear();
  Str f;
  for (char c : fields + ",") {
    if (c == ',' || isspace(static_cast<unsigned char>(c)) || c == '"') {
      if (!f.empty()) _fields.push_back(f);
      f.clear();
    } else {
      f += c;
    }
  }
  return initSets(sets.size() > 0 ? sets[0] : Str(), sets.size() > 1 ? sets[1] : Str(), name, error);
}

bool KVParser::initSets(const Str& pairDelims, const Str& kvDelims, const Str& name, Str* error) {
  _name = name;
  _pair.reset();
  _kv.reset();
  for (unsigned char c : pairDelims) _pair.set(c);
  for (unsigned char c : kvDelims) _kv.set(c);
  _hasKv = _kv.any();
  _pairIsSpace = true;
  for (unsigned char c : pairDelims) _pairIsSpace = _pairIsSpace && isspace(c);
  if (_pair.none()) return finish(name, error);
  return true;
}

bool KVParser::finish(const Str& name, Str* error) {
  if (_pair.any()) return true;
  Str text = Str::fromFormat(
      "Failed to properly initialize kv parser for transform_name='%s'. At least one delimiter must be defined.",
      name.c_str());
  gLogger.error("%s", text.c_str());
  if (error) *error = text;
  return false;
}

int KVParser::matchAndInsert(const StrSegment& text, ResultInserter& ins) const {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data() ? text.data() : "");
  const size_t n = text.size();
  int taken = 0;
  if (_pair.none()) return 0;  // not initialised
  size_t i = 0, position = 0;
  bool first = true;
  while (i <= n && !ins.full()) {
    if (_pairIsSpace)
      while (i < n && _pair.test(p[i])) ++i;
    if (i >= n && (_pairIsSpace || !first || n == 0)) break;
    first = false;
    size_t start = i, kvAt = n;
    while (i < n && !_pair.test(p[i])) {
      if (_hasKv && kvAt == n && _kv.test(p[i])) {
        kvAt = i;
        if (i + 1 < n && p[i + 1] == '"') {
          size_t close = i + 2;
          while (close < n && p[close] != '"') ++close;
          if (close < n) {
            const char* k = reinterpret_cast<const char*>(p + start);
            taken += ins.insert(StrSegment(k, kvAt - start),
                                StrSegment(reinterpret_cast<const char*>(p + i + 2), close - i - 2), true);
            i = close + 1;
            while (i < n && !_pair.test(p[i])) ++i;
            start = n + 1;  // consumed
            break;
          }
        }
      }
      ++i;
    }
    if (start <= n) {
      const char* s = reinterpret_cast<const char*>(p + start);
      if (kvAt < i && kvAt > start) {
        taken += ins.insert(StrSegment(s, kvAt - start),
                            StrSegment(reinterpret_cast<const char*>(p + kvAt + 1), i - kvAt - 1), true);
      } else if (kvAt == n || kvAt >= i) {
        if (position < _fields.size())
          taken += ins.insert(StrSegment(_fields[position]), StrSegment(s, i - start), false);
        ++position;
      }
    }
    if (i >= n) break;
    ++i;  // the delimiter
    if (i == n && !_pairIsSpace) {
      // A trailing delimiter ends with an empty last piece.
      if (position < _fields.size()) taken += ins.insert(StrSegment(_fields[position]), StrSegment("", 0), false);
      break;
    }
  }
  return taken;
}
