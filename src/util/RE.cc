#include "util/RE.h"

#include "util/PcreMatchData.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const char kEmpty[] = "";

// Copies a number into a NUL-terminated buffer. Fails on an empty text, a
// leading blank, or a text too long to be a number.
bool terminateNumber(char* buf, size_t bufSize, const char* str, size_t n) {
  if (str == nullptr || n == 0 || n >= bufSize) return false;
  if (std::isspace(static_cast<unsigned char>(str[0]))) return false;
  std::memcpy(buf, str, n);
  buf[n] = '\0';
  return true;
}

template <typename T>
bool parseSigned(const char* str, size_t n, void* dest) {
  long long v;
  if (!RE::Arg::parseRadix(str, n, 10, true, &v)) return false;
  if (v < static_cast<long long>(std::numeric_limits<T>::min()) ||
      v > static_cast<long long>(std::numeric_limits<T>::max()))
    return false;
  if (dest) *static_cast<T*>(dest) = static_cast<T>(v);
  return true;
}

template <typename T>
bool parseUnsigned(const char* str, size_t n, void* dest) {
  long long v;
  if (!RE::Arg::parseRadix(str, n, 10, false, &v)) return false;
  if (static_cast<unsigned long long>(v) > static_cast<unsigned long long>(std::numeric_limits<T>::max()))
    return false;
  if (dest) *static_cast<T*>(dest) = static_cast<T>(v);
  return true;
}

}  // namespace

uint32_t RE_Options::compileOptions() const {
  uint32_t o = 0;
  if (caseless_) o |= PCRE2_CASELESS;
  if (multiline_) o |= PCRE2_MULTILINE;
  if (dotall_) o |= PCRE2_DOTALL;
  if (extended_) o |= PCRE2_EXTENDED;
  if (utf8_) o |= PCRE2_UTF;
  if (ungreedy_) o |= PCRE2_UNGREEDY;
  if (no_auto_capture_) o |= PCRE2_NO_AUTO_CAPTURE;
  return o;
}

// ---- Arg parsers ----------------------------------------------------------

bool RE::Arg::parseNull(const char*, size_t, void*) { return true; }

bool RE::Arg::parseString(const char* str, size_t n, void* dest) {
  if (dest) static_cast<std::string*>(dest)->assign(str ? str : kEmpty, str ? n : 0);
  return true;
}

bool RE::Arg::parseStringPiece(const char* str, size_t n, void* dest) {
  if (dest) static_cast<StringPiece*>(dest)->set(str, str ? n : 0);
  return true;
}

bool RE::Arg::parseChar(const char* str, size_t n, void* dest) {
  if (str == nullptr || n != 1) return false;
  if (dest) *static_cast<char*>(dest) = str[0];
  return true;
}

bool RE::Arg::parseUChar(const char* str, size_t n, void* dest) {
  if (str == nullptr || n != 1) return false;
  if (dest) *static_cast<unsigned char*>(dest) = static_cast<unsigned char>(str[0]);
  return true;
}

bool RE::Arg::parseRadix(const char* str, size_t n, int radix, bool isSigned, long long* out) {
  char buf[32];
  if (!terminateNumber(buf, sizeof buf, str, n)) return false;
  char* end = nullptr;
  errno = 0;
  if (isSigned) {
    *out = std::strtoll(buf, &end, radix);
  } else {
    if (buf[0] == '-') return false;
    *out = static_cast<long long>(std::strtoull(buf, &end, radix));
  }
  return end == buf + n && errno == 0;
}

bool RE::Arg::parseShort(const char* s, size_t n, void* d) { return parseSigned<short>(s, n, d); }
bool RE::Arg::parseUShort(const char* s, size_t n, void* d) { return parseUnsigned<unsigned short>(s, n, d); }
bool RE::Arg::parseInt(const char* s, size_t n, void* d) { return parseSigned<int>(s, n, d); }
bool RE::Arg::parseUInt(const char* s, size_t n, void* d) { return parseUnsigned<unsigned int>(s, n, d); }
bool RE::Arg::parseLong(const char* s, size_t n, void* d) { return parseSigned<long>(s, n, d); }
bool RE::Arg::parseULong(const char* s, size_t n, void* d) { return parseUnsigned<unsigned long>(s, n, d); }
bool RE::Arg::parseLongLong(const char* s, size_t n, void* d) { return parseSigned<long long>(s, n, d); }
bool RE::Arg::parseULongLong(const char* s, size_t n, void* d) {
  return parseUnsigned<unsigned long long>(s, n, d);
}

bool RE::Arg::parseDouble(const char* str, size_t n, void* dest) {
  char buf[200];
  if (!terminateNumber(buf, sizeof buf, str, n)) return false;
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(buf, &end);
  if (end != buf + n || errno != 0) return false;
  if (dest) *static_cast<double*>(dest) = v;
  return true;
}

bool RE::Arg::parseFloat(const char* str, size_t n, void* dest) {
  double v;
  if (!parseDouble(str, n, &v)) return false;
  if (dest) *static_cast<float*>(dest) = static_cast<float>(v);
  return true;
}

// ---- compile ----------------------------------------------------------------

RE::RE(const std::string& pattern, const RE_Options& options) : pattern_(pattern), options_(options) {
  compile();
}

RE::RE(const RE& other) : pattern_(other.pattern_), options_(other.options_) { compile(); }

RE& RE::operator=(const RE& other) {
  if (this != &other) {
    release();
    pattern_ = other.pattern_;
    options_ = other.options_;
    error_.clear();
    compile();
  }
  return *this;
}

RE::~RE() { release(); }

void RE::release() {
  if (code_) pcre2_code_free(code_);
  if (codeFull_) pcre2_code_free(codeFull_);
  if (matchContext_) pcre2_match_context_free(matchContext_);
  code_ = codeFull_ = nullptr;
  matchContext_ = nullptr;
  groups_ = -1;
}

static pcre2_code* compileOne(const std::string& pattern, uint32_t options, std::string* error) {
  int errcode = 0;
  PCRE2_SIZE erroffset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), options,
                                   &errcode, &erroffset, nullptr);
  if (code == nullptr) {
    PCRE2_UCHAR msg[256];
    if (pcre2_get_error_message(errcode, msg, sizeof msg) < 0) msg[0] = 0;
    error->assign(reinterpret_cast<const char*>(msg));
    return nullptr;
  }
  // A pattern the JIT can't take still runs in the interpreter.
  (void)pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  return code;
}

void RE::compile() {
  uint32_t opts = options_.compileOptions();
  code_ = compileOne(pattern_, opts, &error_);
  if (code_ == nullptr) return;
  codeFull_ = compileOne(pattern_, opts | PCRE2_ANCHORED | PCRE2_ENDANCHORED, &error_);
  if (codeFull_ == nullptr) {
    release();
    return;
  }
  uint32_t count = 0;
  pcre2_pattern_info(code_, PCRE2_INFO_CAPTURECOUNT, &count);
  groups_ = static_cast<int>(count);
  if (options_.match_limit() != 0) {
    matchContext_ = pcre2_match_context_create(nullptr);
    if (matchContext_) pcre2_set_match_limit(matchContext_, options_.match_limit());
  }
}

int RE::NumberOfCapturingGroups() const { return groups_; }

// ---- matching ---------------------------------------------------------------

int RE::tryMatch(const StringPiece& text, size_t startOffset, Anchor anchor, uint32_t extraOptions,
                 const size_t** ovector) const {
  if (code_ == nullptr) return -1;
  pcre2_match_data* md = PcreMatchData::forThread(static_cast<uint32_t>(groups_) + 1);
  if (md == nullptr) return -1;
  const pcre2_code* code = code_;
  uint32_t opts = extraOptions;
  if (anchor == ANCHOR_BOTH)
    code = codeFull_;
  else if (anchor == ANCHOR_START)
    opts |= PCRE2_ANCHORED;
  const char* subject = text.data() ? text.data() : kEmpty;
  pcre2_match_context* mctx = matchContext_;
  int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject), text.size(), startOffset, opts, md, mctx);
  if (rc == PCRE2_ERROR_JIT_STACKLIMIT)
    rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject), text.size(), startOffset, opts | PCRE2_NO_JIT,
                     md, mctx);
  *ovector = pcre2_get_ovector_pointer(md);
  return rc;
}

bool RE::DoMatch(const StringPiece& text, Anchor anchor, int* consumed, const Arg* const args[], int n) const {
  if (code_ == nullptr || n < 0 || n > groups_) return false;
  const size_t* ov = nullptr;
  int rc = tryMatch(text, 0, anchor, 0, &ov);
  if (rc <= 0) return false;
  if (consumed) *consumed = static_cast<int>(ov[1]);
  for (int i = 0; i < n; ++i) {
    int g = i + 1;
    if (g < rc && ov[2 * g] != PCRE2_UNSET) {
      if (!args[i]->Parse(text.data() + ov[2 * g], ov[2 * g + 1] - ov[2 * g])) return false;
    } else if (!args[i]->Parse(nullptr, 0)) {
      return false;
    }
  }
  return true;
}

bool RE::matchWithArgs(const StringPiece& text, Anchor anchor, int* consumed, const Arg* args, size_t n) const {
  const Arg* ptrs[16];
  const Arg** p = ptrs;
  std::unique_ptr<const Arg*[]> heap;
  if (n > 16) {
    heap.reset(new const Arg*[n]);
    p = heap.get();
  }
  for (size_t i = 0; i < n; ++i) p[i] = &args[i];
  return DoMatch(text, anchor, consumed, p, static_cast<int>(n));
}

bool RE::consumeWithArgs(StringPiece* input, Anchor anchor, const Arg* args, size_t n) const {
  int consumed = 0;
  if (!matchWithArgs(*input, anchor, &consumed, args, n)) return false;
  input->remove_prefix(static_cast<size_t>(consumed));
  return true;
}

// ---- rewriting --------------------------------------------------------------

bool RE::rewrite(std::string* out, const StringPiece& rw, const StringPiece& text, const size_t* ov,
                 int pairs) const {
  for (const char* s = rw.begin(); s < rw.end(); ++s) {
    if (*s != '\\') {
      out->push_back(*s);
      continue;
    }
    if (++s == rw.end()) return false;
    if (*s >= '0' && *s <= '9') {
      int g = *s - '0';
      if (g > groups_) return false;
      if (g < pairs && ov[2 * g] != PCRE2_UNSET) out->append(text.data() + ov[2 * g], ov[2 * g + 1] - ov[2 * g]);
    } else if (*s == '\\') {
      out->push_back('\\');
    } else {
      return false;
    }
  }
  return true;
}

bool RE::CheckRewriteString(const StringPiece& rw, std::string* error) const {
  for (const char* s = rw.begin(); s < rw.end(); ++s) {
    if (*s != '\\') continue;
    if (++s == rw.end()) {
      *error = "Rewrite schema error: '\\' not allowed at end.";
      return false;
    }
    if (*s == '\\') continue;
    if (*s < '0' || *s > '9') {
      *error = "Rewrite schema error: '\\' must be followed by a digit or '\\'.";
      return false;
    }
    int g = *s - '0';
    if (g > groups_) {
      *error = "Rewrite schema requests " + std::to_string(g) + " matches, but the regexp only has " +
               std::to_string(groups_ < 0 ? 0 : groups_) + " parenthesized subexpressions.";
      return false;
    }
  }
  return true;
}

bool RE::Replace(const StringPiece& rw, std::string* str) const {
  const size_t* ov = nullptr;
  StringPiece text(*str);
  int rc = tryMatch(text, 0, UNANCHORED, 0, &ov);
  if (rc <= 0) return false;
  std::string repl;
  if (!rewrite(&repl, rw, text, ov, rc)) return false;
  str->replace(ov[0], ov[1] - ov[0], repl);
  return true;
}

int RE::GlobalReplace(const StringPiece& rw, std::string* str) const {
  std::string why;
  if (!CheckRewriteString(rw, &why)) return 0;
  const size_t* ov = nullptr;
  StringPiece text(*str);
  std::string out;
  size_t start = 0, lastEnd = 0;
  bool haveLast = false;
  int count = 0;
  while (start <= text.size()) {
    int rc = tryMatch(text, start, UNANCHORED, 0, &ov);
    if (rc <= 0) break;
    if (ov[0] == ov[1] && haveLast && ov[0] == lastEnd) {
      // An empty match right where the last match ended is not replaced:
      // step over one character (one UTF-8 sequence in UTF-8 mode).
      size_t next = start + 1;
      if (options_.utf8())
        while (next < text.size() && (static_cast<unsigned char>(text[next]) & 0xC0) == 0x80) ++next;
      if (start < text.size()) out.append(text.data() + start, std::min(next, text.size()) - start);
      start = next;
      continue;
    }
    out.append(text.data() + start, ov[0] - start);
    rewrite(&out, rw, text, ov, rc);
    start = lastEnd = ov[1];
    haveLast = true;
    ++count;
  }
  if (count == 0) return 0;
  if (start < text.size()) out.append(text.data() + start, text.size() - start);
  str->swap(out);
  return count;
}

bool RE::Extract(const StringPiece& rw, const StringPiece& text, std::string* out) const {
  const size_t* ov = nullptr;
  int rc = tryMatch(text, 0, UNANCHORED, 0, &ov);
  if (rc <= 0) return false;
  out->clear();
  return rewrite(out, rw, text, ov, rc);
}

std::string RE::QuoteMeta(const StringPiece& unquoted) {
  std::string result;
  result.reserve(unquoted.size() * 2);
  for (char c : unquoted) {
    unsigned char u = static_cast<unsigned char>(c);
    bool word = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '_';
    if (!word && u < 0x80) {
      if (c == '\0') {
        result += "\\x00";
        continue;
      }
      result += '\\';
    }
    result += c;
  }
  return result;
}
