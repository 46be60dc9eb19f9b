#include "pipeline/analysis/DatePatternSet.h"

#include <cstdio>
#include <map>
#include <stdexcept>

#include "pipeline/analysis/DateParseException.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/RegexNameResolver.h"
#include "util/xml/XmlNode.h"
#include "util/xml/XmlTreeParser.h"

namespace {

Logger gLogger("DateParser");

struct Define {
  Str extract;
  Str text;
};

class DefineResolver : public RegexNameResolver {
 public:
  explicit DefineResolver(const std::map<Str, Define>& defines) : _defines(defines) {}
  Str resolve(const Str& name) override {
    auto it = _defines.find(name);
    return it == _defines.end() ? Str() : it->second.text;
  }

 private:
  const std::map<Str, Define>& _defines;
};

Str trimmed(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return Str();
  size_t e = s.find_last_not_of(" \t\r\n");
  return Str(s.substr(b, e - b + 1));
}

std::vector<DataBinding> parseExtract(const Str& extract) {
  std::vector<DataBinding> out;
  if (trimmed(extract).empty()) return out;
  size_t start = 0;
  while (true) {
    size_t comma = extract.find(',', start);
    out.emplace_back(trimmed(extract.substr(start, comma == Str::npos ? Str::npos : comma - start)));
    if (comma == Str::npos) break;
    start = comma + 1;
  }
  return out;
}

Mutex gCacheMutex;
std::map<Str, std::shared_ptr<const DatePatternSet>>& cache() {
  static auto* c = new std::map<Str, std::shared_ptr<const DatePatternSet>>();
  return *c;
}

}  // namespace

std::shared_ptr<const DatePatternSet> DatePatternSet::get(const Str& path) {
  ScopedLock lock(gCacheMutex);
  auto it = cache().find(path);
  if (it != cache().end()) return it->second;
  // Compiling under the lock keeps two streams from compiling the same file
  // twice; it happens once per file per process.
  if (!Pathname(path).isFile()) {
    char buf[1024];
    std::snprintf(buf, sizeof buf, "Couldn't find '%s' in config data for AggregatorProcessor.", path.c_str());
    throw DateParseException(buf);
  }
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    char buf[1024];
    std::snprintf(buf, sizeof buf, "Couldn't find '%s' in config data for AggregatorProcessor.", path.c_str());
    throw DateParseException(buf);
  }
  std::string data;
  char chunk[8192];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) data.append(chunk, n);
  std::fclose(f);
  std::shared_ptr<DatePatternSet> set(new DatePatternSet());
  set->build(data.data(), data.size(), path);
  cache()[path] = set;
  return set;
}

std::shared_ptr<const DatePatternSet> DatePatternSet::fromText(const Str& xmlText, const Str& origin) {
  std::shared_ptr<DatePatternSet> set(new DatePatternSet());
  set->build(xmlText.data(), xmlText.size(), origin);
  return set;
}

void DatePatternSet::clearCache() {
  ScopedLock lock(gCacheMutex);
  cache().clear();
}

void DatePatternSet::build(const char* data, size_t size, const Str& origin) {
  _origin = origin;
  xml::tree_parser parser(data, size, false);
  if (parser.failed() || !parser.get_document().get_root_node()) {
    std::string why = parser.get_error_message();
    while (!why.empty() && (why.back() == '\n' || why.back() == '\r')) why.pop_back();
    if (why.empty()) why = "no root element";
    char buf[2048];
    std::snprintf(buf, sizeof buf, "Error parsing regex XML file: %s - %s", origin.c_str(), why.c_str());
    throw DateParseException(buf);
  }
  xml::node root = parser.get_document().get_root_node();

  std::map<Str, Define> defines;
  std::vector<Str> timeUses, dateUses;
  for (const xml::node& el : root.elements()) {
    const std::string kind = el.get_name();
    if (kind == "define") {
      std::string name;
      if (!el.get_attribute("name", name))
        throw DateParseException("couldn't find 'name' attribute for 'define' type of node in regex file");
      Define d;
      d.extract = el.get_attribute("extract");
      std::string text;
      if (el.child_content("text", text)) d.text = trimmed(text);
      if (d.text.empty())
        gLogger.debug("put %s", name.c_str());
      else
        gLogger.debug("put %s regex=%s", name.c_str(), d.text.c_str());
      for (const DataBinding& b : parseExtract(d.extract)) gLogger.debug("    * %s", b.name().c_str());
      defines[Str(name)] = d;
    } else if (kind == "timePatterns" || kind == "datePatterns") {
      std::vector<Str>& uses = kind == "timePatterns" ? timeUses : dateUses;
      for (const xml::node& u : el.elements()) {
        if (std::string(u.get_name()) != "use")
          throw DateParseException("invalid node name.  Must be 'use' or 'define'");
        std::string name;
        if (!u.get_attribute("name", name))
          throw DateParseException("couldn't find 'name' attribute for 'use' node in timePatterns or datePatterns");
        uses.emplace_back(name);
      }
    } else if (kind == "use") {
      // A bare `use` at the top level names nothing to try; it is only checked.
      if (!el.has_attribute("name"))
        throw DateParseException("couldn't find 'name' attribute for 'use' type of node in regex file");
    } else {
      throw DateParseException("invalid node name.  Must be 'use' or 'define'");
    }
  }

  DefineResolver resolver(defines);
  std::map<Str, const RegexBinding*> compiled;
  auto compile = [&](const Str& name, const char* listName) -> const RegexBinding* {
    auto done = compiled.find(name);
    if (done != compiled.end()) return done->second;
    auto it = defines.find(name);
    if (it == defines.end()) throw DateParseException("couldn't find 'use' reference named: " + name);
    if (it->second.text.empty())
      throw DateParseException("Can't find regular expression " + name + " specified in '" + listName +
                               "' in file " + origin);
    Str pattern;
    try {
      pattern = Regex::isModularPattern(it->second.text) ? Regex::resolveModularPattern(it->second.text, resolver)
                                                          : it->second.text;
      _owned.push_back(std::make_unique<RegexBinding>(name, pattern, parseExtract(it->second.extract)));
    } catch (const std::runtime_error& e) {
      throw DateParseException("Can't find regular expression " + name + " specified in '" + listName +
                               "' in file " + origin + ": " + e.what());
    }
    compiled[name] = _owned.back().get();
    return _owned.back().get();
  };
  for (const Str& n : timeUses) _time.push_back(compile(n, "timePatterns"));
  for (const Str& n : dateUses) _date.push_back(compile(n, "datePatterns"));
}
