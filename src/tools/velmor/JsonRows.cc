#include "tools/velmor/JsonRows.h"

#include <cctype>
#include <cstdlib>

#include "search/SearchResults.h"

namespace {

class Reader {
 public:
  Reader(const Str& text, SearchResults& out) : _t(text), _out(out) {}

  bool document(Str& err) {
    skip();
    bool ok;
    if (peek() == '[') {
      ++_p;
      skip();
      if (peek() == ']') {
        ++_p;
        ok = true;
      } else {
        ok = true;
        while (ok) {
          ok = object();
          skip();
          if (!ok) break;
          if (peek() == ',') {
            ++_p;
            continue;
          }
          ok = expect(']');
          break;
        }
      }
    } else {
      ok = object();
    }
    if (ok) {
      skip();
      if (_p != _t.size()) ok = fail("text after the end");
    }
    if (!ok) err = Str::fromFormat("bad JSON at byte %zu: %s", _errAt, _err.c_str());
    return ok;
  }

 private:
  char peek() const { return _p < _t.size() ? _t[_p] : '\0'; }
  void skip() {
    while (_p < _t.size() && std::isspace(static_cast<unsigned char>(_t[_p]))) ++_p;
  }
  bool fail(const char* what) {
    if (_err.empty()) {
      _err = what;
      _errAt = _p;
    }
    return false;
  }
  bool expect(char c) {
    skip();
    if (peek() != c) return fail(Str::fromFormat("'%c' expected", c).c_str());
    ++_p;
    return true;
  }
  static void putUtf8(unsigned cp, Str& out) {
    if (cp < 0x80) {
      out += char(cp);
    } else if (cp < 0x800) {
      out += char(0xC0 | (cp >> 6));
      out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += char(0xE0 | (cp >> 12));
      out += char(0x80 | ((cp >> 6) & 0x3F));
      out += char(0x80 | (cp & 0x3F));
    } else {
      out += char(0xF0 | (cp >> 18));
      out += char(0x80 | ((cp >> 12) & 0x3F));
      out += char(0x80 | ((cp >> 6) & 0x3F));
      out += char(0x80 | (cp & 0x3F));
    }
  }
  bool hex4(unsigned& v) {
    if (_p + 4 > _t.size()) return fail("short \\u escape");
    v = 0;
    for (int i = 0; i < 4; ++i) {
      char c = _t[_p++];
      v <<= 4;
      if (c >= '0' && c <= '9') v |= unsigned(c - '0');
      else if (c >= 'a' && c <= 'f') v |= unsigned(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') v |= unsigned(c - 'A' + 10);
      else return fail("bad \\u escape");
    }
    return true;
  }
  bool string(Str& out) {
    out.clear();
    if (!expect('"')) return false;
    while (_p < _t.size()) {
      char c = _t[_p++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return fail("control byte in a string");
      if (c != '\\') {
        out += c;
        continue;
      }
      if (_p >= _t.size()) break;
      char e = _t[_p++];
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          unsigned cp;
          if (!hex4(cp)) return false;
          if (cp >= 0xD800 && cp < 0xDC00 && _p + 1 < _t.size() && _t[_p] == '\\' && _t[_p + 1] == 'u') {
            _p += 2;
            unsigned lo;
            if (!hex4(lo)) return false;
            if (lo >= 0xDC00 && lo < 0xE000) cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
            else cp = 0xFFFD;
          } else if (cp >= 0xD800 && cp < 0xE000) {
            cp = 0xFFFD;
          }
          putUtf8(cp, out);
          break;
        }
        default:
          return fail("bad escape");
      }
    }
    return fail("unterminated string");
  }
  // A scalar or an array of scalars as text; `present` false for null.
  bool value(Str& out, bool& present, bool inArray = false) {
    skip();
    present = true;
    char c = peek();
    if (c == '"') return string(out);
    if (c == '[' && !inArray) {
      ++_p;
      out.clear();
      skip();
      if (peek() == ']') {
        ++_p;
        return true;
      }
      bool first = true;
      for (;;) {
        Str one;
        bool here;
        if (!value(one, here, true)) return false;
        if (here) {
          if (!first) out += '\n';
          out += one;
          first = false;
        }
        skip();
        if (peek() == ',') {
          ++_p;
          continue;
        }
        return expect(']');
      }
    }
    size_t start = _p;
    while (_p < _t.size() && (std::isalnum(static_cast<unsigned char>(_t[_p])) || _t[_p] == '-' || _t[_p] == '+' ||
                              _t[_p] == '.'))
      ++_p;
    out = Str(_t.substr(start, _p - start));
    if (out == "null") {
      present = false;
      return true;
    }
    if (out == "true" || out == "false") return true;
    char* end = nullptr;
    if (out.empty()) return fail("value expected");
    strtod(out.c_str(), &end);
    if (end == nullptr || *end != '\0') return fail("value expected");
    return true;
  }
  bool object() {
    if (!expect('{')) return false;
    SearchResult* row = _out.addNewResult();
    skip();
    if (peek() == '}') {
      ++_p;
      return true;
    }
    for (;;) {
      Str key, v;
      bool present;
      skip();
      if (!string(key)) return false;
      if (!expect(':')) return false;
      if (!value(v, present)) return false;
      if (present && !key.empty()) {
        sr_index_t k = SearchResults::isInternalField(key) ? _out.internalKeyIndex(key, true) : _out.keyIndex(key, true);
        row->setValue(k, v);
      }
      skip();
      if (peek() == ',') {
        ++_p;
        continue;
      }
      return expect('}');
    }
  }

  const Str& _t;
  SearchResults& _out;
  size_t _p = 0;
  Str _err;
  size_t _errAt = 0;
};

}  // namespace

bool JsonRows::parse(const Str& text, SearchResults& out, Str& err) {
  Reader r(text, out);
  return r.document(err);
}
