#include "pipeline/input/TailStanza.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>

#include "libbundle/PropertiesMap.h"
#include "loaderinfo/XMLAndStringUtil.h"

namespace {

constexpr const char kPrefix[] = "tail:";
constexpr int kMaxDepth = 64;  // guards against loops of linked directories

bool hasWildcard(const Str& p) { return p.find('*') != Str::npos || p.find("...") != Str::npos; }

bool value(const PropertiesMap& keys, const char* key, Str& out) {
  const char* v = keys.get(key);
  if (v == nullptr) return false;
  out = v;
  out.trimInPlace();
  return !out.empty();
}

bool parseBool(const PropertiesMap& keys, const char* key, bool& out, Str& error) {
  Str text;
  if (!value(keys, key, text)) return true;
  if (!text.tryToBool(out)) {
    error = "'" + text + "' is not true or false for " + key;
    return false;
  }
  return true;
}

bool parseRegex(const PropertiesMap& keys, const char* key, std::shared_ptr<const RE>& out, Str& error) {
  Str text;
  if (!value(keys, key, text)) return true;
  auto re = std::make_shared<const RE>(std::string(text));
  if (!re->error().empty()) {
    error = Str("bad regular expression for ") + key + " '" + text + "': " + re->error();
    return false;
  }
  out = std::move(re);
  return true;
}

}  // namespace

bool TailStanza::parseDuration(const Str& text, long& seconds) {
  if (text.empty()) return false;
  long unit = 1;
  Str digits = text;
  switch (text.back()) {
    case 's': unit = 1; digits.pop_back(); break;
    case 'm': unit = 60; digits.pop_back(); break;
    case 'h': unit = 3600; digits.pop_back(); break;
    case 'd': unit = 86400; digits.pop_back(); break;
    default: break;
  }
  if (digits.empty() || digits.find_first_not_of("0123456789") != Str::npos || digits.size() > 12) return false;
  long n = 0;
  if (!digits.tryToLong(n)) return false;
  seconds = n * unit;
  return true;
}

bool TailStanza::parse(const Str& name, const PropertiesMap& keys, TailStanza& out, Str& error) {
  out = TailStanza();
  out._name = name;
  if (name.compare(0, sizeof(kPrefix) - 1, kPrefix) != 0) {
    error = "not a tail stanza";
    return false;
  }
  Str path(name.substr(sizeof(kPrefix) - 1));
  path.trimInPlace();
  if (path.empty() || path[0] != '/') {
    error = "the path '" + path + "' is not absolute";
    return false;
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  out._path = path;

  value(keys, "index", out.index);
  value(keys, "sourcetype", out.sourcetype);
  value(keys, "host", out.host);
  value(keys, "crcSalt", out.crcSalt);
  if (!parseBool(keys, "disabled", out.disabled, error)) return false;
  if (!parseBool(keys, "followTail", out.followTail, error)) return false;
  if (!parseBool(keys, "recursive", out.recursive, error)) return false;
  if (!parseRegex(keys, "whitelist", out._whitelist, error)) return false;
  if (!parseRegex(keys, "blacklist", out._blacklist, error)) return false;

  Str text;
  if (value(keys, "ignoreOlderThan", text) && !parseDuration(text, out.ignoreOlderThan)) {
    error = "'" + text + "' is not a time span for ignoreOlderThan (a number with s, m, h or d)";
    return false;
  }
  if (value(keys, "scanInterval", text)) {
    double d = 0;
    if (!text.tryToDouble(d) || !(d > 0) || d > 86400) {
      error = "'" + text + "' is not a number of seconds above 0 for scanInterval";
      return false;
    }
    out.scanInterval = d;
  }

  if (hasWildcard(path)) {
    // The directories before the segment holding the first wildcard are
    // walked; the levels below are bounded unless "..." crosses segments.
    size_t first = std::min(path.find('*'), path.find("..."));
    size_t slash = path.rfind('/', first);
    out._root = slash == 0 ? Str("/") : Str(path.substr(0, slash));
    if (path.find("...") != Str::npos) {
      out._maxDepth = kMaxDepth;
    } else {
      out._maxDepth = static_cast<int>(std::count(path.begin() + slash, path.end(), '/'));
    }
    Str re = path;
    XMLAndStringUtil::toRegex(re);
    auto compiled = std::make_shared<const RE>(std::string(re));
    if (!compiled->error().empty()) {
      error = "the wildcard '" + path + "' does not make a regular expression: " + compiled->error();
      return false;
    }
    out._pattern = std::move(compiled);
  }
  return true;
}

bool TailStanza::accepts(const Str& path) const {
  if (_pattern && !_pattern->FullMatch(path)) return false;
  if (_whitelist && !_whitelist->PartialMatch(path)) return false;
  if (_blacklist && _blacklist->PartialMatch(path)) return false;
  return true;
}

size_t TailStanza::specificity(const Str& path) const {
  if (!accepts(path)) return 0;
  if (_pattern) return 1 + _root.size();
  if (path == _path) return SIZE_MAX;
  const Str dir = _path == "/" ? Str() : _path;
  if (path.size() <= dir.size() + 1 || path.compare(0, dir.size(), dir) != 0 || path[dir.size()] != '/') return 0;
  if (!recursive && path.find('/', dir.size() + 1) != Str::npos) return 0;
  return 1 + dir.size();
}

void TailStanza::walk(const Str& dir, int depthLeft, std::vector<Str>& out) const {
  if (depthLeft <= 0) return;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<Str> subdirs;
  while (struct dirent* e = readdir(d)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
    Str full = dir == "/" ? Str("/") + n : dir + "/" + n;
    unsigned char type = e->d_type;
    if (type == DT_UNKNOWN || type == DT_LNK) {
      struct stat st;
      if (::stat(full.c_str(), &st) != 0) continue;
      type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
    }
    if (type == DT_DIR) {
      subdirs.push_back(std::move(full));
    } else if (type == DT_REG && accepts(full)) {
      out.push_back(std::move(full));
    }
  }
  closedir(d);
  for (const Str& s : subdirs) walk(s, depthLeft - 1, out);
}

void TailStanza::findFiles(std::vector<Str>& out) const {
  if (_pattern) {
    walk(_root, _maxDepth, out);
    return;
  }
  struct stat st;
  if (::stat(_path.c_str(), &st) != 0) return;
  if (S_ISREG(st.st_mode)) {
    if (accepts(_path)) out.push_back(_path);
  } else if (S_ISDIR(st.st_mode)) {
    walk(_path, recursive ? kMaxDepth : 1, out);
  }
}
