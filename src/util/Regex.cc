#include "util/Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <stdexcept>
#include <vector>

#include "util/PcreMatchData.h"

namespace {

const char kEmpty[] = "";

// A replacement split at its back references: literal text, then the group
// to insert after it (-1 for none).
struct ReplacementPiece {
  Str literal;
  long group;
};

// Literal run (plain bytes or a backslash before a non-digit), or nothing at
// the start, followed by "\N".
const Regex& backReferenceSplitter() {
  static const Regex re("((?:[^\\\\]|(?:\\\\[\\D]))+|^)(?:\\\\(\\d+))", true);
  return re;
}

// Text before a reference, the name, and the optional capture name.
const Regex& modularReference() {
  static const Regex re("(.*?)(?<!\\\\)\\[\\[([^:\\]]+)(?::([^:\\]]+))?]]", true);
  return re;
}

// "(?<name>" or "(?P<name>"; group 1 is the name.
const Regex& namedGroupOpening() {
  static const Regex re("\\(\\?P?<([^>]*)>", true);
  return re;
}

Str unescapeBackslashes(const StrSegment& piece) {
  Str s(piece);
  replaceAllString(s, "\\\\", "\\");
  return s;
}

void splitReplacement(const Str& replacement, std::vector<ReplacementPiece>& pieces) {
  StrSegment rest(replacement);
  RegexMatch m;
  while (!rest.empty()) {
    const char* before = rest.data();
    if (!backReferenceSplitter().match(rest, &m, true)) break;
    // Anything the match skipped over is literal too.
    Str literal = unescapeBackslashes(StrSegment(before, m.getMatchStart()));
    literal += unescapeBackslashes(m.getGroup(1));
    pieces.push_back({literal, m.getGroup(2).toLong(-1)});
  }
  if (!rest.empty()) pieces.push_back({unescapeBackslashes(rest), -1});
}

}  // namespace

Regex::Regex(const Str& pattern, bool study) { init(pattern, study); }

Regex::~Regex() { release(); }

void Regex::release() {
  if (_code) pcre2_code_free(_code);
  _code = nullptr;
  _captureCount = 0;
  _names.clear();
}

void Regex::init(const Str& pattern, bool study) {
  release();
  _pattern = pattern;
  int errcode = 0;
  PCRE2_SIZE erroffset = 0;
  _code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), 0, &errcode, &erroffset,
                        nullptr);
  if (_code == nullptr) {
    PCRE2_UCHAR msg[256];
    if (pcre2_get_error_message(errcode, msg, sizeof msg) < 0) msg[0] = 0;
    throw std::runtime_error(std::string("Regex: ") + reinterpret_cast<const char*>(msg));
  }
  if (study) (void)pcre2_jit_compile(_code, PCRE2_JIT_COMPLETE);

  uint32_t count = 0, nameCount = 0, entrySize = 0;
  PCRE2_SPTR table = nullptr;
  pcre2_pattern_info(_code, PCRE2_INFO_CAPTURECOUNT, &count);
  pcre2_pattern_info(_code, PCRE2_INFO_NAMECOUNT, &nameCount);
  pcre2_pattern_info(_code, PCRE2_INFO_NAMEENTRYSIZE, &entrySize);
  pcre2_pattern_info(_code, PCRE2_INFO_NAMETABLE, &table);
  _captureCount = count;
  // Each entry: a 16-bit group number (big-endian), then the NUL-terminated
  // name, padded to entrySize.
  for (uint32_t i = 0; i < nameCount; ++i) {
    PCRE2_SPTR e = table + i * entrySize;
    unsigned group = (static_cast<unsigned>(e[0]) << 8) | e[1];
    _names[Str(reinterpret_cast<const char*>(e + 2))] = group;
  }
}

bool Regex::match(StrSegment& text, RegexMatch* result, bool advance, bool toEnd) const {
  if (advance && text.empty()) return false;
  const char* subject = text.data() ? text.data() : kEmpty;
  pcre2_match_data* md = PcreMatchData::forThread(_captureCount + 1);
  if (md == nullptr || _code == nullptr) return false;
  int rc = pcre2_match(_code, reinterpret_cast<PCRE2_SPTR>(subject), text.size(), 0, 0, md, nullptr);
  if (rc == PCRE2_ERROR_JIT_STACKLIMIT)
    rc = pcre2_match(_code, reinterpret_cast<PCRE2_SPTR>(subject), text.size(), 0, PCRE2_NO_JIT, md, nullptr);
  if (rc <= 0) return false;
  const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
  if (toEnd && ov[1] != text.size()) return false;
  if (result) {
    result->reset(_captureCount + 1, &_names);
    for (int i = 0; i < rc; ++i) {
      if (ov[2 * i] != PCRE2_UNSET) result->setGroup(i, subject + ov[2 * i], ov[2 * i + 1] - ov[2 * i]);
    }
    result->setSpan(ov[0], ov[1]);
  }
  if (advance) text.remove_prefix(ov[1]);
  return true;
}

unsigned Regex::replaceAll(const StrSegment& text, const Str& replacement, Str& out, bool expand) const {
  std::vector<ReplacementPiece> pieces;
  if (expand)
    splitReplacement(replacement, pieces);
  else
    pieces.push_back({replacement, -1});

  out.clear();
  const char* base = text.data() ? text.data() : kEmpty;
  size_t n = text.size(), pos = 0, copied = 0;
  unsigned count = 0;
  pcre2_match_data* md = PcreMatchData::forThread(_captureCount + 1);
  if (md == nullptr || _code == nullptr) return 0;
  while (pos <= n) {
    int rc = pcre2_match(_code, reinterpret_cast<PCRE2_SPTR>(base), n, pos, 0, md, nullptr);
    if (rc == PCRE2_ERROR_JIT_STACKLIMIT)
      rc = pcre2_match(_code, reinterpret_cast<PCRE2_SPTR>(base), n, pos, PCRE2_NO_JIT, md, nullptr);
    if (rc <= 0) break;
    const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
    out.append(base + copied, ov[0] - copied);
    for (const ReplacementPiece& p : pieces) {
      out += p.literal;
      if (p.group >= 0 && p.group < rc && ov[2 * p.group] != PCRE2_UNSET)
        out.append(base + ov[2 * p.group], ov[2 * p.group + 1] - ov[2 * p.group]);
    }
    copied = ov[1];
    ++count;
    // An empty match would be found again at the same place: step over one
    // byte (it is copied with the next stretch of unmatched text).
    pos = ov[1] > ov[0] ? ov[1] : ov[1] + 1;
  }
  out.append(base + copied, n - copied);
  return count;
}

bool Regex::isModularPattern(const Str& pattern) {
  StrSegment text(pattern);
  return modularReference().match(text);
}

Str Regex::resolveModularPattern(const Str& pattern, RegexNameResolver& resolver) {
  std::set<Str> inProgress;
  return resolveModular(pattern, resolver, inProgress);
}

Str Regex::resolveModular(const Str& pattern, RegexNameResolver& resolver, std::set<Str>& inProgress) {
  Str out;
  StrSegment rest(pattern);
  RegexMatch m;
  while (!rest.empty()) {
    const char* before = rest.data();
    if (!modularReference().match(rest, &m, true)) break;
    out.append(before, m.getMatchStart());
    m.getGroup(1).appendTo(out);
    Str name(m.getGroup(2));
    const StrSegment& capture = m.getGroup(3);

    if (inProgress.count(name)) throw std::runtime_error("Regex - Circular depency for modular regex: " + name);
    Str text = resolver.resolve(name);
    if (text.empty()) throw std::runtime_error("Regex - Cannot find regex reference: " + name);
    inProgress.insert(name);
    try {
      text = resolveModular(text, resolver, inProgress);
    } catch (const std::runtime_error& e) {
      Str msg(e.what());
      msg += ", in regex: '";
      msg += text;
      msg += "'";
      throw std::runtime_error(msg);
    }
    inProgress.erase(name);

    if (capture.data() != nullptr) {
      StrSegment probe(text);
      if (namedGroupOpening().match(probe)) {
        Str renamed;
        namedGroupOpening().replaceAll(text, "(?<" + capture + "\\1>", renamed, true);
        text = renamed;
      } else {
        text = "(?<" + capture + ">" + text + ")";
      }
    }
    if (!rest.empty() && (rest[0] == '{' || rest[0] == '?' || rest[0] == '+' || rest[0] == '*'))
      text = "(?:" + text + ")";
    out += text;
  }
  rest.appendTo(out);
  return out;
}
