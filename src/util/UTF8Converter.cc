#include "util/UTF8Converter.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr uint32_t kNoCodePoint = 0xFFFFFFFF;

// Collects UTF-8 in a stack buffer and appends it to the Str in blocks, so
// that a conversion grows the output a few times rather than per character.
class Utf8Sink {
 public:
  explicit Utf8Sink(Str& out) : _out(out) {}
  ~Utf8Sink() { flush(); }

  void ascii(unsigned char c) {
    if (_n == sizeof _buf) flush();
    _buf[_n++] = static_cast<char>(c);
  }
  void put(uint32_t cp) {
    if (cp < 0x80) {
      ascii(static_cast<unsigned char>(cp));
      return;
    }
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return;
    if (_n + 4 > sizeof _buf) flush();
    if (cp < 0x800) {
      _buf[_n++] = static_cast<char>(0xC0 | (cp >> 6));
    } else if (cp < 0x10000) {
      _buf[_n++] = static_cast<char>(0xE0 | (cp >> 12));
      _buf[_n++] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    } else {
      _buf[_n++] = static_cast<char>(0xF0 | (cp >> 18));
      _buf[_n++] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      _buf[_n++] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    }
    _buf[_n++] = static_cast<char>(0x80 | (cp & 0x3F));
  }
  // Bytes known to be valid UTF-8.
  void raw(const unsigned char* p, size_t n) {
    flush();
    _out.append(reinterpret_cast<const char*>(p), n);
  }
  void flush() {
    if (_n) _out.append(_buf, _n);
    _n = 0;
  }

 private:
  Str& _out;
  char _buf[2048];
  size_t _n = 0;
};

// The code point of a two-byte sequence through a table's rows, or
// kNoCodePoint.
inline uint32_t pairLookup(const UTF8Table* t, unsigned char lead, unsigned char trail) {
  if (t->rows == nullptr) return kNoCodePoint;
  const UTF8TableRow& r = t->rows[lead];
  if (r.hi == 0 || trail < r.lo || trail > r.hi) return kNoCodePoint;
  return t->cps[r.offset + (trail - r.lo)];
}

// ---- table routines ---------------------------------------------------------

size_t convertSbcs(UTF8Converter::State&, const UTF8Table* t, const unsigned char* in, size_t len, Str& out) {
  Utf8Sink sink(out);
  const uint16_t* single = t->single;
  for (size_t i = 0; i < len; ++i) {
    uint16_t cp = single[in[i]];
    if (cp != UTF8_TABLE_NONE) sink.put(cp);
  }
  return len;
}

// One- and two-byte charsets, plus (for the MBCS engine) 0x8F and two bytes
// through table->extra and four-byte GB18030 sequences through the ranges.
size_t convertTable(const UTF8Table* t, const unsigned char* in, size_t len, Str& out, bool extended) {
  Utf8Sink sink(out);
  size_t i = 0;
  while (i < len) {
    unsigned char b = in[i];
    uint16_t s = t->single[b];
    if (s != UTF8_TABLE_LEAD) {
      if (s != UTF8_TABLE_NONE) sink.put(s);
      ++i;
      continue;
    }
    if (extended && b == 0x8F && t->extra) {
      if (len - i < 3) break;
      uint32_t cp = pairLookup(t->extra, in[i + 1], in[i + 2]);
      if (cp == kNoCodePoint) {
        ++i;
      } else {
        sink.put(cp);
        i += 3;
      }
      continue;
    }
    if (len - i < 2) break;
    unsigned char b2 = in[i + 1];
    if (extended && t->ranges && b2 >= 0x30 && b2 <= 0x39) {
      if (len - i < 4) break;
      unsigned char b3 = in[i + 2], b4 = in[i + 3];
      if (b3 < 0x81 || b3 > 0xFE || b4 < 0x30 || b4 > 0x39) {
        ++i;
        continue;
      }
      uint32_t linear = (((b - 0x81u) * 10 + (b2 - 0x30u)) * 126 + (b3 - 0x81u)) * 10 + (b4 - 0x30u);
      const UTF8TableRange* end = t->ranges + t->nranges;
      const UTF8TableRange* r =
          std::upper_bound(t->ranges, end, linear, [](uint32_t v, const UTF8TableRange& x) { return v < x.linear; });
      if (r != t->ranges) {
        --r;
        if (linear - r->linear < r->count) sink.put(r->codepoint + (linear - r->linear));
      }
      i += 4;
      continue;
    }
    uint32_t cp = pairLookup(t, b, b2);
    if (cp == kNoCodePoint) {
      ++i;  // resynchronise on the next byte
    } else {
      sink.put(cp);
      i += 2;
    }
  }
  return i;
}

size_t convertDbcs(UTF8Converter::State&, const UTF8Table* t, const unsigned char* in, size_t len, Str& out) {
  return convertTable(t, in, len, out, false);
}

size_t convertMbcs(UTF8Converter::State&, const UTF8Table* t, const unsigned char* in, size_t len, Str& out) {
  return convertTable(t, in, len, out, true);
}

// ---- UTF-8 ------------------------------------------------------------------

// Length of the valid sequence at in[0..avail), 0 if it is invalid, or -1 if
// it is a valid but unfinished prefix.
int utf8SequenceLength(const unsigned char* in, size_t avail) {
  unsigned char b = in[0];
  int need;
  unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
  if (b < 0xC2) return 0;
  if (b < 0xE0) {
    need = 2;
  } else if (b < 0xF0) {
    need = 3;
    if (b == 0xE0) lo = 0xA0;          // no overlong forms
    if (b == 0xED) hi = 0x9F;          // no surrogates
  } else if (b < 0xF5) {
    need = 4;
    if (b == 0xF0) lo = 0x90;
    if (b == 0xF4) hi = 0x8F;          // nothing above 0x10FFFF
  } else {
    return 0;
  }
  for (int k = 1; k < need; ++k) {
    if (static_cast<size_t>(k) >= avail) return -1;
    unsigned char c = in[k];
    if (k == 1 ? (c < lo || c > hi) : (c & 0xC0) != 0x80) return 0;
  }
  return need;
}

size_t convertUtf8(UTF8Converter::State&, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  Utf8Sink sink(out);
  size_t i = 0, runStart = 0;
  while (i < len) {
    if (in[i] < 0x80) {
      ++i;
      continue;
    }
    int n = utf8SequenceLength(in + i, len - i);
    if (n > 0) {
      i += n;
      continue;
    }
    sink.raw(in + runStart, i - runStart);
    if (n < 0) return i;  // unfinished character at the end
    runStart = ++i;       // drop the invalid byte
  }
  sink.raw(in + runStart, i - runStart);
  return i;
}

// ---- UTF-16, UCS-2, UTF-32 ---------------------------------------------------

inline uint32_t read16(const unsigned char* p, bool bigEndian) {
  return bigEndian ? (uint32_t(p[0]) << 8 | p[1]) : (uint32_t(p[1]) << 8 | p[0]);
}

inline uint32_t read32(const unsigned char* p, bool bigEndian) {
  return bigEndian ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
                   : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
}

// At the start of a stream: drops a BOM, and flips the order for a reversed
// one. Returns the bytes to skip.
size_t checkBom(UTF8Converter::State& st, const unsigned char* in, size_t len, size_t unit, bool bigEndian) {
  if (st.started || len < unit) return 0;
  st.started = true;
  uint32_t u = unit == 2 ? read16(in, bigEndian) : read32(in, bigEndian);
  if (u == 0xFEFF) return unit;
  if ((unit == 2 && u == 0xFFFE) || (unit == 4 && u == 0xFFFE0000u)) {
    st.swapped = true;
    return unit;
  }
  return 0;
}

size_t convertUtf16(UTF8Converter::State& st, const unsigned char* in, size_t len, Str& out, bool bigEndian,
                    bool pairs) {
  Utf8Sink sink(out);
  size_t i = checkBom(st, in, len, 2, bigEndian);
  bool be = bigEndian != st.swapped;
  while (len - i >= 2) {
    uint32_t u = read16(in + i, be);
    if (pairs && u >= 0xD800 && u <= 0xDBFF) {
      if (len - i < 4) break;
      uint32_t u2 = read16(in + i + 2, be);
      if (u2 >= 0xDC00 && u2 <= 0xDFFF) {
        sink.put(0x10000 + ((u - 0xD800) << 10) + (u2 - 0xDC00));
        i += 4;
        continue;
      }
    }
    sink.put(u);  // a lone surrogate is dropped by put()
    i += 2;
  }
  return i;
}

size_t convertUtf16le(UTF8Converter::State& st, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  return convertUtf16(st, in, len, out, false, true);
}

size_t convertUtf16be(UTF8Converter::State& st, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  return convertUtf16(st, in, len, out, true, true);
}

size_t convertUcs2(UTF8Converter::State& st, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  return convertUtf16(st, in, len, out, false, false);
}

size_t convertUtf32(UTF8Converter::State& st, const unsigned char* in, size_t len, Str& out, bool bigEndian) {
  Utf8Sink sink(out);
  size_t i = checkBom(st, in, len, 4, bigEndian);
  bool be = bigEndian != st.swapped;
  for (; len - i >= 4; i += 4) sink.put(read32(in + i, be));
  return i;
}

size_t convertUtf32le(UTF8Converter::State& st, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  return convertUtf32(st, in, len, out, false);
}

size_t convertUtf32be(UTF8Converter::State& st, const UTF8Table*, const unsigned char* in, size_t len, Str& out) {
  return convertUtf32(st, in, len, out, true);
}

UTF8Converter::Routine routineFor(UTF8Engine e) {
  switch (e) {
    case UTF8_ENGINE_SBCS: return convertSbcs;
    case UTF8_ENGINE_DBCS: return convertDbcs;
    case UTF8_ENGINE_MBCS: return convertMbcs;
    case UTF8_ENGINE_UTF8: return convertUtf8;
    case UTF8_ENGINE_UTF16LE: return convertUtf16le;
    case UTF8_ENGINE_UTF16BE: return convertUtf16be;
    case UTF8_ENGINE_UTF32LE: return convertUtf32le;
    case UTF8_ENGINE_UTF32BE: return convertUtf32be;
    case UTF8_ENGINE_UCS2: return convertUcs2;
  }
  return nullptr;
}

}  // namespace

Str UTF8Converter::normalizeName(const char* name) {
  Str n;
  for (const char* p = name; p && *p; ++p) {
    char c = *p;
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) n.push_back(c);
  }
  return n;
}

size_t UTF8Converter::aliasCount() { return generated_UTF8FindEngine_size; }

bool UTF8Converter::find_engine(Spec& spec, const char* name) {
  Str key = normalizeName(name);
  const UTF8FindEngineRow* begin = generated_UTF8FindEngine_rows;
  const UTF8FindEngineRow* end = begin + generated_UTF8FindEngine_size;
  const UTF8FindEngineRow* row = std::lower_bound(
      begin, end, key, [](const UTF8FindEngineRow& r, const Str& k) { return std::strcmp(r.name, k.c_str()) < 0; });
  if (row == end || key != row->name) return false;
  spec.name = row->name;
  spec.engine = row->engine;
  spec.routine = routineFor(row->engine);
  spec.table = row->table;
  return true;
}

bool UTF8Converter::setCharset(const char* name) {
  reset();
  Spec spec;
  if (!find_engine(spec, name)) {
    _spec = Spec();
    return false;
  }
  _spec = spec;
  return true;
}

void UTF8Converter::reset() {
  _state = State();
  _pending.clear();
}

bool UTF8Converter::convert(const char* data, size_t len, Str& out) {
  if (_spec.routine == nullptr) return false;
  const unsigned char* in = reinterpret_cast<const unsigned char*>(data);
  if (!_pending.empty()) {
    // Finish the held character from the first few new bytes; a character is
    // at most 4 bytes, so 8 more are always enough.
    size_t held = _pending.size();
    Str joined(_pending);
    joined.append(data, std::min<size_t>(len, 8));
    size_t used = _spec.routine(_state, _spec.table, reinterpret_cast<const unsigned char*>(joined.data()),
                                joined.size(), out);
    if (used < held) {
      // Still unfinished: all new bytes went into the held character.
      _pending.assign(joined, used, Str::npos);
      return true;
    }
    _pending.clear();
    in += used - held;
    len -= used - held;
  }
  size_t used = _spec.routine(_state, _spec.table, in, len, out);
  _pending.assign(reinterpret_cast<const char*>(in + used), len - used);
  return true;
}
