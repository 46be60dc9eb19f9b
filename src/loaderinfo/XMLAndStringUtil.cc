#include "loaderinfo/XMLAndStringUtil.h"

#include <climits>
#include <cstring>
#include <mutex>

#include "util/Pathname.h"
#include "util/xml/XmlTreeParser.h"

extern char** environ;

namespace XMLAndStringUtil {

bool toRegex(Str& pattern) {
  Str out;
  out.reserve(pattern.size() + 16);
  for (size_t i = 0; i < pattern.size();) {
    char c = pattern[i];
    if (c == '*') {
      out += "[^/]*";
      ++i;
    } else if (c == '.' && pattern.compare(i, 3, "...") == 0) {
      out += ".*";
      i += 3;
    } else if (c == '.') {
      out += "\\.";
      ++i;
    } else {
      out += c;
      ++i;
    }
  }
  if (out == pattern) return false;
  pattern.swap(out);
  return true;
}

// --- settings from XML -------------------------------------------------------------

namespace {

bool childText(const xml::node& node, const char* name, Str& out, bool trim) {
  std::string text;
  if (!node.child_content(name, text)) return false;
  out = text;
  if (trim) out.trimInPlace();
  return true;
}

}  // namespace

bool fetchValue(const xml::node& node, const char* name, Str& out) {
  return childText(node, name, out, false);
}

bool fetchValue(const xml::node& node, const char* name, bool& out) {
  Str text;
  bool v;
  if (!childText(node, name, text, true) || !text.tryToBool(v)) return false;
  out = v;
  return true;
}

bool fetchValue(const xml::node& node, const char* name, long& out) {
  Str text;
  long v;
  if (!childText(node, name, text, true) || text.empty() || !text.tryToLong(v)) return false;
  out = v;
  return true;
}

bool fetchValue(const xml::node& node, const char* name, int& out) {
  long v;
  if (!fetchValue(node, name, v) || v < INT_MIN || v > INT_MAX) return false;
  out = static_cast<int>(v);
  return true;
}

bool fetchValue(const xml::node& node, const char* name, Str& out, const Str& def) {
  if (fetchValue(node, name, out)) return true;
  out = def;
  return false;
}

bool fetchValue(const xml::node& node, const char* name, bool& out, bool def) {
  if (fetchValue(node, name, out)) return true;
  out = def;
  return false;
}

bool fetchValue(const xml::node& node, const char* name, long& out, long def) {
  if (fetchValue(node, name, out)) return true;
  out = def;
  return false;
}

bool fetchValue(const xml::node& node, const char* name, int& out, int def) {
  if (fetchValue(node, name, out)) return true;
  out = def;
  return false;
}

// --- "$$NAME]]" substitution --------------------------------------------------------

bool substituteTokens(Str& text, const TokenMap& tokens) {
  size_t pos = text.find("$$");
  if (pos == Str::npos || tokens.empty()) return false;
  Str out;
  size_t copied = 0;  // text before this offset is already in `out`
  bool changed = false;
  while (pos != Str::npos) {
    size_t nameStart = pos + 2;
    size_t close = text.find(']', nameStart);
    size_t len = close == Str::npos ? 0 : close - nameStart;
    if (close != Str::npos && len > 0 && len <= kMaxTokenName && close + 1 < text.size() &&
        text[close + 1] == ']') {
      auto it = tokens.find(Str(text, nameStart, len));
      if (it != tokens.end()) {
        out.append(text, copied, pos - copied);
        out += it->second;
        copied = close + 2;
        changed = true;
        pos = text.find("$$", copied);
        continue;
      }
    }
    pos = text.find("$$", pos + 1);
  }
  if (!changed) return false;
  out.append(text, copied, Str::npos);
  text.swap(out);
  return true;
}

void substituteNode(xml::node& node, const TokenMap& tokens) {
  if (node.empty()) return;
  if (node.is_text()) {
    Str text = node.get_content();
    if (substituteTokens(text, tokens)) node.set_content(text);
    return;
  }
  if (!node.is_element()) return;
  for (const auto& [name, value] : node.get_attributes()) {
    Str v = value;
    if (substituteTokens(v, tokens)) node.set_attribute(name.c_str(), v);
  }
  for (xml::node c = node.first_child(); c; c = c.next_sibling()) substituteNode(c, tokens);
}

int loadSubstitutions(const Str& path, TokenMap& tokens) {
  Pathname p(path);
  if (!p.r_ok()) return 1;
  xml::tree_parser parser(path.c_str(), false);
  if (parser.failed()) return -1;
  xml::node root = parser.get_document().get_root_node();
  for (const xml::node& e : root.elements()) tokens.emplace(Str(e.get_name()), Str(e.get_content()));
  return 0;
}

// --- environment of child processes -----------------------------------------------

namespace {

std::mutex g_envMutex;
bool g_envTaken = false;
std::vector<Str> g_env;

void snapshotLocked() {
  g_env.clear();
  for (char** e = environ; e && *e; ++e) g_env.emplace_back(*e);
  g_envTaken = true;
}

}  // namespace

void set_env_cache() {
  std::lock_guard<std::mutex> lock(g_envMutex);
  snapshotLocked();
}

void set_env_cache(const Str& name, const Str& value) {
  std::lock_guard<std::mutex> lock(g_envMutex);
  if (!g_envTaken) snapshotLocked();
  Str entry = name + "=" + value;
  for (Str& e : g_env) {
    if (e.size() > name.size() && e.compare(0, name.size(), name) == 0 && e[name.size()] == '=') {
      e = entry;
      return;
    }
  }
  g_env.push_back(entry);
}

std::vector<Str> get_env_cache() {
  std::lock_guard<std::mutex> lock(g_envMutex);
  if (!g_envTaken) snapshotLocked();
  return g_env;
}

}  // namespace XMLAndStringUtil
