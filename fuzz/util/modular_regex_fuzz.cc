// Fuzz target: arbitrary modular patterns through resolve, compile, match and
// replace. Input lines: the pattern, then "name=text" definitions for the
// resolver, then (last line) the subject. Nothing may crash; thrown
// std::runtime_error is the expected answer to bad input.
#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/RE.h"
#include "util/Regex.h"

namespace {

// Resolves from the definitions, but stops answering after a fixed number of
// lookups so that patterns that double at every level stay small.
class FuzzResolver : public RegexNameResolver {
 public:
  std::map<Str, Str> defs;
  int calls = 0;
  Str resolve(const Str& name) override {
    if (++calls > 64) return Str();
    auto it = defs.find(name);
    return it == defs.end() ? Str() : it->second;
  }
};

void exercise(const Regex& re, const Str& subject) {
  StrSegment text(subject);
  RegexMatch m;
  // Bounded: an empty match does not move the text.
  for (int i = 0; i < 64 && re.match(text, &m, true); ++i) {
    for (size_t g = 0; g < m.size(); ++g) (void)m.getGroup(g).size();
    std::map<Str, Str> named;
    m.getAllGroups(named);
  }
  StrSegment whole(subject);
  (void)re.match(whole, &m, false, true);
  Str out;
  re.replaceAll(subject, "<\\1|\\0|\\\\>", out, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<Str> lines;
  size_t start = 0;
  for (size_t nl; (nl = input.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(input.substr(start, nl - start));
  lines.push_back(input.substr(start));

  Str pattern = lines.front();
  Str subject = lines.size() > 1 ? lines.back() : Str("subject 127.0.0.1 a=b");
  FuzzResolver resolver;
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    size_t eq = lines[i].find('=');
    if (eq != Str::npos) resolver.defs[lines[i].substr(0, eq)] = lines[i].substr(eq + 1);
  }

  (void)Regex::isModularPattern(pattern);
  try {
    pattern = Regex::resolveModularPattern(pattern, resolver);
  } catch (const std::runtime_error&) {
  }
  try {
    Regex re(pattern, (size & 1) != 0);
    exercise(re, subject);
  } catch (const std::runtime_error&) {
  }

  RE re(pattern);
  std::string s = subject, cap;
  (void)re.PartialMatch(s, &cap);
  re.GlobalReplace("[\\0]", &s);
  return 0;
}
