#include "pipeline/indexer/GenericCleaner.h"

#include <cstring>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"

static Logger gLogger("GenericCleaner");

namespace {

inline char lower(unsigned char c) { return (c >= 'A' && c <= 'Z') ? char(c + 32) : char(c); }

// Control bytes and DEL; blanks, tabs, CR and LF are white space and so are
// not forced breakers (a configuration names them when it wants them).
inline bool isForcedBreaker(unsigned char c) {
  return (c < 0x20 && c != ' ' && c != '\t' && c != '\n' && c != '\r' && c != '\v' && c != '\f') || c == 0x7f;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

GenericCleaner::GenericCleaner(const PropertiesMap& stanza) {
  _trie.emplace_back();
  std::memset(&_trie[0], 0, sizeof(Node));
  Str v;
  if (stanza.get("MAJOR", v))
    for (const Str& b : parseBreakerList(v)) addBreaker(b, true);
  if (stanza.get("MINOR", v))
    for (const Str& b : parseBreakerList(v)) addBreaker(b, false);
  for (int c = 0; c < 256; ++c) {
    const int32_t node = _trie[0].child[c];
    if (node == 0) {
      _class[c] = isForcedBreaker((unsigned char)c) ? kMajor1 : kPlain;
      continue;
    }
    const Node& n = _trie[size_t(node)];
    bool leaf = true;
    for (int d = 0; d < 256 && leaf; ++d) leaf = n.child[d] == 0;
    _class[c] = !leaf || n.breakerLen != 1 ? kWalk : n.major ? kMajor1 : kMinor1;
  }
  PropertyPages::layeredFind("LOOKAHEAD", stanza, _lookahead);
  PropertyPages::layeredFind("MINOR_LEN", stanza, _minorLen);
  PropertyPages::layeredFind("MAJOR_LEN", stanza, _majorLen);
  PropertyPages::layeredFind("MINOR_COUNT", stanza, _minorCount);
  PropertyPages::layeredFind("MAJOR_COUNT", stanza, _majorCount);
  PropertyPages::layeredFind("INTERMEDIATE_MAJORS", stanza, _intermediateMajors);
  if (stanza.get("FILTER", v) && !v.empty()) {
    try {
      _filter = std::make_unique<Regex>(v);
    } catch (const std::exception&) {
      gLogger.error("Invalid FILTER=\"%s\"", v.c_str());
      _filter.reset();
    }
  }
}

GenericCleaner::~GenericCleaner() = default;

std::vector<Str> GenericCleaner::parseBreakerList(const StrSegment& text) {
  std::vector<Str> out;
  Str cur;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == ' ' || c == '\t') {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
      continue;
    }
    if (c == '\\' && i + 1 < text.size()) {
      char e = text[++i];
      switch (e) {
        case 'n': cur += '\n'; break;
        case 't': cur += '\t'; break;
        case 'r': cur += '\r'; break;
        case 's': cur += ' '; break;
        case 'x': {
          int hi = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
          int lo = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
          if (hi >= 0 && lo >= 0) {
            cur += char(hi * 16 + lo);
            i += 2;
          } else {
            cur += 'x';
          }
          break;
        }
        default: cur += e; break;
      }
      continue;
    }
    cur += c;
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

void GenericCleaner::addBreaker(const Str& text, bool major) {
  if (text.empty() || text.size() > 0xffff) return;
  int32_t node = 0;
  for (unsigned char c : text) {
    int32_t next = _trie[node].child[c];
    if (next == 0) {
      next = int32_t(_trie.size());
      _trie.emplace_back();
      std::memset(&_trie.back(), 0, sizeof(Node));
      _trie[node].child[c] = next;
    }
    node = next;
  }
  // A string listed twice keeps its first kind (majors are read first).
  if (_trie[node].breakerLen == 0) {
    _trie[node].breakerLen = uint16_t(text.size());
    _trie[node].major = major;
  }
}

size_t GenericCleaner::matchBreaker(const char* p, const char* end, bool& major) const {
  size_t best = 0;
  int32_t node = 0;
  for (const char* q = p; q < end; ++q) {
    node = _trie[node].child[(unsigned char)*q];
    if (node == 0) break;
    if (_trie[node].breakerLen) {
      best = _trie[node].breakerLen;
      major = _trie[node].major;
    }
  }
  if (best == 0 && isForcedBreaker((unsigned char)*p)) {
    major = true;
    return 1;
  }
  return best;
}

// Passes w.buf[from, w.bufLen) as one segment. False when the callback asked
// to stop.
bool GenericCleaner::pass(Work& w, size_t from, size_t rawStart, size_t rawEnd, bool isMajor,
                          ICleanCallback& cb) const {
  size_t len = w.bufLen - from;
  if (len == 0) return true;
  if (isMajor) {
    if ((_majorLen >= 0 && long(len) > _majorLen) || (_majorCount >= 0 && w.majorsPassed >= _majorCount))
      return true;
    ++w.majorsPassed;
  } else {
    if ((_minorLen >= 0 && long(len) > _minorLen) || (_minorCount >= 0 && w.minorsPassed >= _minorCount))
      return true;
    ++w.minorsPassed;
  }
  w.buf[w.bufLen] = '\0';
  return cb.acceptToken(w.buf + from, len, rawStart, rawEnd);
}

void GenericCleaner::tokenize(const StrSegment& input, ICleanCallback& cb) const {
  StrSegment text = input;
  if (_filter) {
    StrSegment t(text);
    RegexMatch m;
    if (!_filter->match(t, &m)) return;
    text = m.getGroup(0);
  }
  if (_lookahead >= 0 && text.size() > size_t(_lookahead)) text = StrSegment(text.data(), size_t(_lookahead));
  // Offsets are reported against the text the caller gave.
  const size_t base = size_t(text.data() - input.data());
  const char* p = text.data();
  const char* end = p + text.size();

  Work w;
  size_t minorFrom = 0;     // buffer position where the current minor segment starts
  size_t majorRaw = 0;      // raw offset of the current major segment
  size_t minorRaw = 0;      // raw offset of the current minor segment
  bool inSegment = false;

  // At a breaker (or the end) at raw offset `at`.
  auto flush = [&](bool major, size_t at) -> bool {
    if (w.bufLen == 0) return true;
    bool wholeOffered = major || _intermediateMajors;
    if (wholeOffered && !pass(w, 0, majorRaw, at, true, cb)) return false;
    // With no minor breaker seen yet the minor segment is the whole segment:
    // it was offered above (and maybe refused by a limit), so not again.
    if (!(wholeOffered && minorFrom == 0)) {
      if (!pass(w, minorFrom, minorRaw, at, false, cb)) return false;
    }
    return true;
  };

  while (p < end) {
    const uint8_t cls = _class[(unsigned char)*p];
    bool major = cls == kMajor1;
    size_t blen = cls == kPlain ? 0 : cls == kWalk ? matchBreaker(p, end, major) : 1;
    size_t off = base + size_t(p - text.data());
    if (blen == 0) {
      // A run of bytes of the segment, copied lowercased in one pass: only
      // its first byte can open the segment or a minor one. Past the
      // buffer's end the bytes are skipped.
      if (w.bufLen < kMaxSegment) {
        if (!inSegment) {
          inSegment = true;
          majorRaw = off;
          minorRaw = off;
        } else if (minorFrom == w.bufLen) {
          minorRaw = off;
        }
      }
      size_t len = w.bufLen;
      if (len < kMaxSegment) w.buf[len++] = lower((unsigned char)*p);
      ++p;
      while (p < end) {
        const unsigned char c = (unsigned char)*p;
        if (_class[c] != kPlain) break;
        if (len < kMaxSegment) w.buf[len++] = lower(c);
        ++p;
      }
      w.bufLen = len;
      continue;
    }
    if (w.bufLen >= kMaxSegment && !major) {
      // Full buffer: only a major breaker ends the skipping.
      p += blen;
      continue;
    }
    if (!flush(major, off)) return;
    if (major) {
      w.bufLen = 0;
      minorFrom = 0;
      inSegment = false;
    } else {
      if (!inSegment) {
        inSegment = true;
        majorRaw = off;
      }
      for (size_t i = 0; i < blen && w.bufLen < kMaxSegment; ++i) w.buf[w.bufLen++] = lower((unsigned char)p[i]);
      minorFrom = w.bufLen;
      minorRaw = off + blen;
    }
    p += blen;
  }
  flush(true, base + text.size());
}

// The shipped [default] of segmenters.conf: every breaker major, so that
// index and search both cut text into its words.
PropertiesMap GenericCleaner::defaultStanza() {
  PropertiesMap m;
  m.put("MAJOR",
        "\\s \\t \\n \\r [ ] < > ( ) { } | ! ; , ' \" * & ? + ` %20 %2C %5B %5D %3B %0A %2520 / : = @ . - $ # "
        "\\\\ %");
  m.put("MINOR", "");
  return m;
}
