// RE: a compiled regular expression (PCRE2 syntax) with typed captures.
//
//   RE re("(\\w+):(\\d+)");
//   std::string host; int port;
//   if (re.FullMatch("example:80", &host, &port)) ...
//
// The pattern is compiled once in the constructor (JIT-compiled when the
// library allows) and is immutable afterwards, so every const member may be
// called from any number of threads at once. A pattern that fails to compile
// leaves error() non-empty and makes every match fail.
//
// Matching allocates nothing: match data lives in a per-thread buffer that is
// grown on need and reused by every RE of that thread.
//
// Capture arguments (RE::Arg) are pointers: std::string*, StringPiece*, the
// integer types, float* and double*, or nullptr to skip a group. Integer
// captures need the whole group to be a base-10 number (RE::Hex, RE::Octal and
// RE::CRadix choose another base); a group that did not take part fails an
// integer or float capture and gives an empty string to a string capture.
//
// Rewrite strings (Replace, GlobalReplace, Extract) use "\0".."\9" for the
// groups and "\\" for one backslash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "util/StringPiece.h"

struct pcre2_real_code_8;
struct pcre2_real_match_context_8;

// Compile options. Defaults: none set, match limit of the library.
class RE_Options {
 public:
  RE_Options() = default;

  bool caseless() const { return caseless_; }
  RE_Options& set_caseless(bool v) { caseless_ = v; return *this; }
  bool multiline() const { return multiline_; }
  RE_Options& set_multiline(bool v) { multiline_ = v; return *this; }
  bool dotall() const { return dotall_; }
  RE_Options& set_dotall(bool v) { dotall_ = v; return *this; }
  bool extended() const { return extended_; }
  RE_Options& set_extended(bool v) { extended_ = v; return *this; }
  bool utf8() const { return utf8_; }
  RE_Options& set_utf8(bool v) { utf8_ = v; return *this; }
  bool ungreedy() const { return ungreedy_; }
  RE_Options& set_ungreedy(bool v) { ungreedy_ = v; return *this; }
  bool no_auto_capture() const { return no_auto_capture_; }
  RE_Options& set_no_auto_capture(bool v) { no_auto_capture_ = v; return *this; }
  // 0 leaves the library's limit.
  uint32_t match_limit() const { return match_limit_; }
  RE_Options& set_match_limit(uint32_t v) { match_limit_ = v; return *this; }

  // The PCRE2 compile option bits these flags stand for.
  uint32_t compileOptions() const;

 private:
  bool caseless_ = false;
  bool multiline_ = false;
  bool dotall_ = false;
  bool extended_ = false;
  bool utf8_ = false;
  bool ungreedy_ = false;
  bool no_auto_capture_ = false;
  uint32_t match_limit_ = 0;
};

inline RE_Options CASELESS() { return RE_Options().set_caseless(true); }
inline RE_Options MULTILINE() { return RE_Options().set_multiline(true); }
inline RE_Options DOTALL() { return RE_Options().set_dotall(true); }
inline RE_Options EXTENDED() { return RE_Options().set_extended(true); }
inline RE_Options UTF8() { return RE_Options().set_utf8(true); }

class RE {
 public:
  // One capture destination: a pointer and the parser that fills it.
  class Arg {
   public:
    typedef bool (*Parser)(const char* str, size_t n, void* dest);

    Arg() : dest_(nullptr), parser_(parseNull) {}
    Arg(std::nullptr_t) : dest_(nullptr), parser_(parseNull) {}
    Arg(void* p, Parser parser) : dest_(p), parser_(parser) {}
    Arg(std::string* p) : dest_(p), parser_(parseString) {}
    Arg(StringPiece* p) : dest_(p), parser_(parseStringPiece) {}
    Arg(char* p) : dest_(p), parser_(parseChar) {}
    Arg(unsigned char* p) : dest_(p), parser_(parseUChar) {}
    Arg(short* p) : dest_(p), parser_(parseShort) {}
    Arg(unsigned short* p) : dest_(p), parser_(parseUShort) {}
    Arg(int* p) : dest_(p), parser_(parseInt) {}
    Arg(unsigned int* p) : dest_(p), parser_(parseUInt) {}
    Arg(long* p) : dest_(p), parser_(parseLong) {}
    Arg(unsigned long* p) : dest_(p), parser_(parseULong) {}
    Arg(long long* p) : dest_(p), parser_(parseLongLong) {}
    Arg(unsigned long long* p) : dest_(p), parser_(parseULongLong) {}
    Arg(float* p) : dest_(p), parser_(parseFloat) {}
    Arg(double* p) : dest_(p), parser_(parseDouble) {}

    // str is null for a group that did not take part in the match.
    bool Parse(const char* str, size_t n) const { return parser_(str, n, dest_); }

    static bool parseNull(const char*, size_t, void*);
    static bool parseString(const char* str, size_t n, void* dest);
    static bool parseStringPiece(const char* str, size_t n, void* dest);
    static bool parseChar(const char* str, size_t n, void* dest);
    static bool parseUChar(const char* str, size_t n, void* dest);
    static bool parseShort(const char* str, size_t n, void* dest);
    static bool parseUShort(const char* str, size_t n, void* dest);
    static bool parseInt(const char* str, size_t n, void* dest);
    static bool parseUInt(const char* str, size_t n, void* dest);
    static bool parseLong(const char* str, size_t n, void* dest);
    static bool parseULong(const char* str, size_t n, void* dest);
    static bool parseLongLong(const char* str, size_t n, void* dest);
    static bool parseULongLong(const char* str, size_t n, void* dest);
    static bool parseFloat(const char* str, size_t n, void* dest);
    static bool parseDouble(const char* str, size_t n, void* dest);

    // Integer parsers in another radix (16, 8, or 0 for C-style prefixes).
    static bool parseRadix(const char* str, size_t n, int radix, bool isSigned, long long* out);

   private:
    void* dest_;
    Parser parser_;
  };

  enum Anchor {
    UNANCHORED,   // the match may start and end anywhere
    ANCHOR_START, // the match must start at the beginning of the text
    ANCHOR_BOTH   // the match must cover the whole text
  };

  explicit RE(const std::string& pattern) : RE(pattern, RE_Options()) {}
  RE(const char* pattern) : RE(std::string(pattern), RE_Options()) {}
  RE(const std::string& pattern, const RE_Options& options);
  RE(const RE& other);
  RE& operator=(const RE& other);
  ~RE();

  const std::string& pattern() const { return pattern_; }
  const RE_Options& options() const { return options_; }
  // Empty when the pattern compiled; otherwise the compiler's message.
  const std::string& error() const { return error_; }
  // -1 when the pattern failed to compile.
  int NumberOfCapturingGroups() const;

  // The whole text must match.
  template <typename... A>
  bool FullMatch(const StringPiece& text, A&&... a) const {
    const Arg args[] = {Arg(), Arg(a)...};
    return matchWithArgs(text, ANCHOR_BOTH, nullptr, args + 1, sizeof...(A));
  }
  // Some part of the text must match.
  template <typename... A>
  bool PartialMatch(const StringPiece& text, A&&... a) const {
    const Arg args[] = {Arg(), Arg(a)...};
    return matchWithArgs(text, UNANCHORED, nullptr, args + 1, sizeof...(A));
  }
  // Matches at the start of *input and advances it past the match.
  template <typename... A>
  bool Consume(StringPiece* input, A&&... a) const {
    const Arg args[] = {Arg(), Arg(a)...};
    return consumeWithArgs(input, ANCHOR_START, args + 1, sizeof...(A));
  }
  // Finds the next match in *input and advances it past the match.
  template <typename... A>
  bool FindAndConsume(StringPiece* input, A&&... a) const {
    const Arg args[] = {Arg(), Arg(a)...};
    return consumeWithArgs(input, UNANCHORED, args + 1, sizeof...(A));
  }

  // The general form: args[0..n) receive groups 1..n. consumed, when not
  // null, receives the end offset of the match. More arguments than groups
  // fail.
  bool DoMatch(const StringPiece& text, Anchor anchor, int* consumed, const Arg* const args[], int n) const;

  // Replaces the first match in *str by the expanded rewrite.
  bool Replace(const StringPiece& rewrite, std::string* str) const;
  // Replaces every match; returns the number of replacements.
  int GlobalReplace(const StringPiece& rewrite, std::string* str) const;
  // Expands the rewrite for the first match of text into *out.
  bool Extract(const StringPiece& rewrite, const StringPiece& text, std::string* out) const;
  // False (with a reason in *error) if the rewrite names a group the pattern
  // does not have or ends in a lone backslash.
  bool CheckRewriteString(const StringPiece& rewrite, std::string* error) const;

  // Escapes every byte that is not [A-Za-z0-9_] or a byte >= 0x80, so that
  // the result matches the text literally. NUL becomes "\x00".
  static std::string QuoteMeta(const StringPiece& unquoted);

 private:
  void compile();
  void release();
  bool matchWithArgs(const StringPiece& text, Anchor anchor, int* consumed, const Arg* args, size_t n) const;
  bool consumeWithArgs(StringPiece* input, Anchor anchor, const Arg* args, size_t n) const;
  // Runs one match; returns the number of ovector pairs set (>0) or <=0.
  int tryMatch(const StringPiece& text, size_t startOffset, Anchor anchor, uint32_t extraOptions,
               const size_t** ovector) const;
  bool rewrite(std::string* out, const StringPiece& rewrite, const StringPiece& text, const size_t* ovector,
               int pairs) const;

  std::string pattern_;
  RE_Options options_;
  std::string error_;
  pcre2_real_code_8* code_ = nullptr;      // unanchored
  pcre2_real_code_8* codeFull_ = nullptr;  // anchored at both ends
  pcre2_real_match_context_8* matchContext_ = nullptr;  // only with a match limit
  int groups_ = -1;
};

// Capture argument builders for integers in another radix:
// Hex(&i) reads "ff", Octal(&i) reads "17", CRadix(&i) reads
// "0x1f", "017" or "15".
namespace re_radix_detail {
template <typename T, int Radix>
bool parse(const char* str, size_t n, void* dest) {
  long long v;
  constexpr bool isSigned = static_cast<T>(-1) < static_cast<T>(0);
  if (!RE::Arg::parseRadix(str, n, Radix, isSigned, &v)) return false;
  if constexpr (isSigned) {
    if (v < static_cast<long long>(std::numeric_limits<T>::min()) ||
        v > static_cast<long long>(std::numeric_limits<T>::max()))
      return false;
  } else {
    if (static_cast<unsigned long long>(v) > static_cast<unsigned long long>(std::numeric_limits<T>::max()))
      return false;
  }
  if (dest) *static_cast<T*>(dest) = static_cast<T>(v);
  return true;
}
}  // namespace re_radix_detail

namespace re_radix {
template <typename T>
RE::Arg Hex(T* p) { return RE::Arg(p, &re_radix_detail::parse<T, 16>); }
template <typename T>
RE::Arg Octal(T* p) { return RE::Arg(p, &re_radix_detail::parse<T, 8>); }
template <typename T>
RE::Arg CRadix(T* p) { return RE::Arg(p, &re_radix_detail::parse<T, 0>); }
}  // namespace re_radix
using re_radix::CRadix;
using re_radix::Hex;
using re_radix::Octal;
