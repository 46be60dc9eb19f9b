#include "libbundle/StringMgr.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libbundle/PropertyPages.h"

namespace {

struct Conversion {
  const char* token;
  const char* text;
};

const Conversion kConversions[] = {
    {"S", " '%s'"},     {"C", " '%c'"},     {"D", " '%d'"},     {"F", " '%f'"},   {"LD", " '%ld'"},
    {"LLD", " '%lld'"}, {"LLU", " '%llu'"}, {"LLX", " '%llx'"}, {"LU", " '%lu'"}, {"LX", " '%lx'"},
    {"M", " '%m'"},     {"P", " '%p'"},     {"U", " '%u'"},     {"UL", " '%ul'"},
};

void appendToken(Str& out, const Str& token) {
  if (token.empty()) return;
  for (const Conversion& c : kConversions) {
    if (token == c.token) {
      out += c.text;
      return;
    }
  }
  out += ' ';
  out += token;
}

}  // namespace

StringMgr::StringMgr(PropertyPages& pages) {
  // Bundles in precedence order: the first text seen for a key wins.
  for (PropertiesMapConfig* config : pages.getConfigs()) {
    SettingsMap settings;
    config->getSettings(settings);
    for (const auto& [stanza, map] : settings) {
      for (const auto& [key, value] : map) {
        if (key == PropertiesMap::RAW_KEY) continue;
        _strings.emplace(stanza + "_" + key, value);
      }
    }
  }
}

StringMgr& StringMgr::instance() {
  static StringMgr mgr(PropertyPages::instance("strings"));
  return mgr;
}

const Str& StringMgr::str(const char* key) { return instance().lookup(key); }

Str StringMgr::defaultText(const char* key) {
  const char* sep = strstr(key, "__");
  if (sep == nullptr) {
    fprintf(stderr, "StringMgr: key without argument types: %s\n", key);
    abort();
  }
  Str out(key, sep - key);
  out += " Arguments: ";
  Str token;
  for (const char* p = sep + 2; *p != '\0'; ++p) {
    if (*p == '_') {
      appendToken(out, token);
      token.clear();
    } else {
      token += *p;
    }
  }
  appendToken(out, token);
  return out;
}

const Str& StringMgr::lookup(const char* key) {
  ScopedLock lock(_mutex);
  auto it = _strings.find(std::string_view(key));
  if (it != _strings.end()) return it->second;
  printf("%s -- %s\n", "String not found in searchstrings.conf", key);
  fflush(stdout);
  return _strings.emplace(Str(key), defaultText(key)).first->second;
}
