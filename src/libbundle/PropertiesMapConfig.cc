#include "libbundle/PropertiesMapConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "libbundle/BundleArchive.h"
#include "libbundle/ConfRawEditor.h"
#include "loaderinfo/XMLAndStringUtil.h"
#include "util/Logger.h"
#include "util/FileStar.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/StrSegment.h"

static Logger gLogger("PropertiesMapConfig");

namespace {

// fgets buffer size: a longer line is cut here and its rest reads as a line.
constexpr int kLineBufferSize = 65534;

const char kSourcetypePrefix[] = "sourcetype::";

Mutex& callbackMutex() {
  static Mutex m;
  return m;
}

std::vector<MConfigFileReadCallback*>& callbacks() {
  static std::vector<MConfigFileReadCallback*> list;
  return list;
}

void notifyRead(const Str& path, bool found) {
  ScopedLock lock(callbackMutex());
  for (MConfigFileReadCallback* cb : callbacks()) cb->configFileRead(path, found);
}

// Raw lines are kept with their newline; a line without one (cut by the
// buffer, or the last of the file) gets one.
void appendRaw(Str& raw, const char* line, size_t len) {
  raw.append(line, len);
  if (len == 0 || line[len - 1] != '\n') raw += '\n';
}

// Replaces a trailing backslash-newline or backslash-CR-newline by one
// newline. False if the value does not end in either (or is one byte long).
bool foldContinuation(Str& value) {
  size_t n = value.size();
  if (n <= 1 || value[n - 1] != '\n') return false;
  if (value[n - 2] == '\\') {
    value.erase(n - 2, 1);
    return true;
  }
  if (n >= 3 && value[n - 2] == '\r' && value[n - 3] == '\\') {
    value.erase(n - 3, 2);
    return true;
  }
  return false;
}

// Does the raw text end in a line that asks for continuation? Such a line
// (met at the end of the file when it was read) would swallow whatever is
// written after it, so save() gives it an empty line to take: the empty line
// joins the raw text when the file is read again, and the text is stable
// from then on.
bool endsInContinuation(const Str& raw) { return raw.endswith("\\\n") || raw.endswith("\\\r\n"); }

bool fullMatch(const Regex& re, const Str& text) {
  StrSegment seg(text.data(), text.size());
  RegexMatch m;
  if (!re.match(seg, &m, false, true)) return false;
  return m.getMatchStart() == 0;
}

}  // namespace

PropertiesMapConfig::PropertiesMapConfig(const Pathname& bundlePath, const Str& pagesName,
                                         bool usePatterns)
    : _bundlePath(bundlePath), _fileName(pagesName + ".conf"), _usePatterns(usePatterns) {
  struct stat st;
  _isArchive = ::stat(bundlePath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
  _path = bundlePath / _fileName;
  ScopedLock lock(_mutex);
  Locked_load();
}

PropertiesMapConfig::PropertiesMapConfig(OneFile, const Pathname& confFile, bool usePatterns)
    : _bundlePath(confFile.toParent()), _path(confFile), _fileName(confFile.toLeaf()),
      _usePatterns(usePatterns) {
  ScopedLock lock(_mutex);
  Locked_load();
}

std::unique_ptr<PropertiesMapConfig> PropertiesMapConfig::fromFile(const Pathname& confFile,
                                                                   bool usePatterns) {
  return std::unique_ptr<PropertiesMapConfig>(new PropertiesMapConfig(OneFile(), confFile, usePatterns));
}

PropertiesMapConfig::~PropertiesMapConfig() { Locked_clearPatterns(); }

// --- parsing ---------------------------------------------------------------

bool PropertiesMapConfig::loadSettings(SettingsMap& settings, const Pathname& file) {
  FILE* f = fopen(file.c_str(), "r");
  if (f == nullptr) {
    gLogger.debug("Properties file cannot be read: %s", file.c_str());
    settings[SettingsMap::DEFAULT_STANZA];
    return false;
  }
  loadSettings(settings, f);
  fclose(f);
  return true;
}

void PropertiesMapConfig::loadSettings(SettingsMap& settings, const FileStar& file) {
  loadSettings(settings, file.get());
}

void PropertiesMapConfig::loadSettings(SettingsMap& settings, FILE* f) {
  std::unique_ptr<char[]> buffer(new char[kLineBufferSize]);
  char* buf = buffer.get();

  // The stanza being read and its raw text so far; a stanza met again goes on
  // from the raw text it already has.
  PropertiesMap* cur = &settings[SettingsMap::DEFAULT_STANZA];
  Str raw;
  cur->get(PropertiesMap::RAW_KEY, raw);

  while (fgets(buf, kLineBufferSize, f) != nullptr) {
    size_t len = strlen(buf);
    char first = buf[0];
    if (first == '\0' || first == '\n') continue;

    if (first == '#' || first == ';') {
      appendRaw(raw, buf, len);
      continue;
    }

    if (first == '[') {
      Str name;
      const char* close = strrchr(buf, ']');
      if (close != nullptr) {
        name.assign(buf + 1, close - buf - 1);
      } else {
        size_t end = len;
        if (end > 0 && buf[end - 1] == '\n') --end;
        name.assign(buf + 1, end - 1);
        gLogger.warn("Missing ] for %s, reading to EOL", Str(buf, end).c_str());
      }
      if (name.startswith(kSourcetypePrefix)) name.erase(0, sizeof(kSourcetypePrefix) - 1);
      if (name.empty()) {
        appendRaw(raw, buf, len);
        continue;
      }
      cur->put(PropertiesMap::RAW_KEY, raw);
      cur = &settings[name];
      raw.clear();
      cur->get(PropertiesMap::RAW_KEY, raw);
      continue;
    }

    appendRaw(raw, buf, len);
    const char* eq = static_cast<const char*>(memchr(buf, '=', len));
    if (eq == nullptr) continue;

    Str key(buf, eq - buf);
    key.trimInPlace();
    Str value(eq + 1, buf + len - (eq + 1));
    while (foldContinuation(value)) {
      if (fgets(buf, kLineBufferSize, f) == nullptr) break;
      size_t more = strlen(buf);
      if (more == 0) break;
      appendRaw(raw, buf, more);
      value.append(buf, more);
    }
    value.trimInPlace();
    // The first occurrence of a key within a stanza wins.
    if (!key.empty() && key != PropertiesMap::RAW_KEY && !cur->contains(key)) cur->put(key, value);
  }
  cur->put(PropertiesMap::RAW_KEY, raw);
}

bool PropertiesMapConfig::isPatternStanza(const Str& name) {
  size_t sep = name.find("::");
  if (sep == Str::npos) return false;
  return name.find('*', sep + 2) != Str::npos || name.find("...", sep + 2) != Str::npos;
}

Str PropertiesMapConfig::patternLiteralPrefix(const Str& name) {
  size_t i = 0;
  for (; i < name.size(); ++i) {
    char c = name[i];
    if (c == '.' && name.compare(i, 3, "...") == 0) break;
    if (c == '\0' || strchr("*\\[](){}?+|^$", c) != nullptr) break;
  }
  return Str(name.substr(0, i));
}

// --- loading -----------------------------------------------------------------

void PropertiesMapConfig::Locked_load() {
  _settings.clear();
  Locked_clearPatterns();
  struct stat st;
  const Pathname& watched = _isArchive ? _bundlePath : _path;
  if (::stat(watched.c_str(), &st) == 0) {
    _loadedSize = st.st_size;
    _loadedMtimeNs = (long long)st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    _loadedIno = st.st_ino;
  } else {
    _loadedSize = -1;
    _loadedMtimeNs = -1;
    _loadedIno = 0;
  }
  bool found;
  if (_isArchive) {
    found = BundleArchive::load(_bundlePath, _fileName, _settings);
  } else {
    found = loadSettings(_settings, _path);
  }
  _settings[SettingsMap::DEFAULT_STANZA];
  if (_usePatterns) Locked_compilePatterns();
  notifyRead(_path, found);
}

void PropertiesMapConfig::Locked_clearPatterns() {
  for (auto& [name, pattern] : _patterns) delete pattern.re;
  _patterns.clear();
}

void PropertiesMapConfig::Locked_compilePatterns() {
  for (const auto& [name, stanza] : _settings) {
    if (!isPatternStanza(name)) continue;
    size_t sep = name.find("::");
    Str rest = name.substr(sep + 2);
    XMLAndStringUtil::toRegex(rest);
    Str expanded = Str(name.substr(0, sep + 2)) + rest;
    Regex* re = new Regex();
    try {
      re->init(expanded, true);
    } catch (const std::exception& e) {
      gLogger.warn("Ignoring invalid file pattern \"%s\": %s", name.c_str(), e.what());
      delete re;
      continue;
    }
    gLogger.debug("Expanded file pattern %s into %s", name.c_str(), expanded.c_str());
    _patterns[name] = Pattern{re, patternLiteralPrefix(name)};
  }
}

void PropertiesMapConfig::reset() {
  ScopedLock lock(_mutex);
  Locked_load();
}

bool PropertiesMapConfig::reloadIfChanged() {
  ScopedLock lock(_mutex);
  struct stat st;
  const Pathname& watched = _isArchive ? _bundlePath : _path;
  bool same;
  if (::stat(watched.c_str(), &st) != 0) {
    same = _loadedSize == -1;
  } else {
    long long mtime = (long long)st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    same = st.st_size == _loadedSize && mtime == _loadedMtimeNs && st.st_ino == _loadedIno;
  }
  if (same) return false;
  Locked_load();
  return true;
}

// --- reading -----------------------------------------------------------------

PropertiesMap* PropertiesMapConfig::Locked_get(const Str& stanza, bool useRegex) {
  // A stanza head loses its "sourcetype::" when read, so a lookup by the
  // prefixed name (a record's stanza path holds "sourcetype::x") finds "x".
  static const char kTypePrefix[] = "sourcetype::";
  if (stanza.startswith(kTypePrefix)) {
    PropertiesMap* typed = _settings.find(Str(stanza.c_str() + sizeof kTypePrefix - 1));
    if (typed != nullptr) return typed;
  }
  PropertiesMap* exact = _settings.find(stanza);
  if (exact != nullptr || !useRegex) return exact;
  for (auto& [name, pattern] : _patterns) {
    if (!stanza.startswith(pattern.literalPrefix)) continue;
    if (fullMatch(*pattern.re, stanza)) return _settings.find(name);
  }
  return nullptr;
}

PropertiesMap* PropertiesMapConfig::get(const Str& stanza, bool useRegex) {
  ScopedLock lock(_mutex);
  return Locked_get(stanza, useRegex);
}

bool PropertiesMapConfig::getCopy(const Str& stanza, bool useRegex, PropertiesMap& out) {
  ScopedLock lock(_mutex);
  PropertiesMap* p = Locked_get(stanza, useRegex);
  if (p == nullptr) return false;
  out.copy(*p);
  return true;
}

PropertiesMap* PropertiesMapConfig::getDefault() {
  ScopedLock lock(_mutex);
  return &_settings[SettingsMap::DEFAULT_STANZA];
}

void PropertiesMapConfig::setDefault(const PropertiesMap& map) {
  ScopedLock lock(_mutex);
  _settings[SettingsMap::DEFAULT_STANZA].copy(map);
}

void PropertiesMapConfig::keys(std::set<Str>& out) {
  ScopedLock lock(_mutex);
  for (const auto& [name, stanza] : _settings) out.insert(name);
}

size_t PropertiesMapConfig::size() {
  ScopedLock lock(_mutex);
  return _settings.size();
}

bool PropertiesMapConfig::propsExist(const Str& stanza) {
  ScopedLock lock(_mutex);
  return _settings.contains(stanza);
}

void PropertiesMapConfig::propsByPrefix(const Str& prefix, std::map<Str, PropertiesMap*>& out) {
  ScopedLock lock(_mutex);
  for (auto it = _settings.lower_bound(prefix); it != _settings.end() && it->first.startswith(prefix); ++it) {
    out[it->first] = &it->second;
  }
}

void PropertiesMapConfig::propsObjByPrefix(const Str& prefix, SettingsMap& out) {
  ScopedLock lock(_mutex);
  for (auto it = _settings.lower_bound(prefix); it != _settings.end() && it->first.startswith(prefix); ++it) {
    out[it->first].copy(it->second);
  }
}

void PropertiesMapConfig::getSettings(SettingsMap& out) {
  ScopedLock lock(_mutex);
  out = _settings;
}

void PropertiesMapConfig::setSettings(const SettingsMap& settings) {
  ScopedLock lock(_mutex);
  _settings = settings;
  _settings[SettingsMap::DEFAULT_STANZA];
  Locked_clearPatterns();
  if (_usePatterns) Locked_compilePatterns();
}

// --- changing ----------------------------------------------------------------

void PropertiesMapConfig::put(const Str& stanza, const PropertiesMap& map) {
  ScopedLock lock(_mutex);
  Str oldRaw;
  PropertiesMap* existing = _settings.find(stanza);
  if (existing != nullptr) {
    existing->get(PropertiesMap::RAW_KEY, oldRaw);
  } else {
    map.get(PropertiesMap::RAW_KEY, oldRaw);
  }
  bool isNew = existing == nullptr;
  PropertiesMap& dest = _settings[stanza];
  dest.copy(map);
  dest.put(PropertiesMap::RAW_KEY, ConfRawEditor::regenerate(oldRaw, map, true));
  if (isNew && _usePatterns && isPatternStanza(stanza)) {
    Locked_clearPatterns();
    Locked_compilePatterns();
  }
}

void PropertiesMapConfig::edit(const Str& stanza, const PropertiesMap& map) {
  ScopedLock lock(_mutex);
  bool isNew = !_settings.contains(stanza);
  PropertiesMap& dest = _settings[stanza];
  Str oldRaw;
  dest.get(PropertiesMap::RAW_KEY, oldRaw);
  for (const auto& [key, value] : map) {
    if (key != PropertiesMap::RAW_KEY) dest.put(key, value);
  }
  dest.put(PropertiesMap::RAW_KEY, ConfRawEditor::regenerate(oldRaw, map, false));
  if (isNew && _usePatterns && isPatternStanza(stanza)) {
    Locked_clearPatterns();
    Locked_compilePatterns();
  }
}

bool PropertiesMapConfig::save() {
  ScopedLock lock(_mutex);
  Str text;
  const PropertiesMap* def = _settings.find(SettingsMap::DEFAULT_STANZA);
  if (def != nullptr) {
    const char* raw = def->get(PropertiesMap::RAW_KEY);
    if (raw != nullptr) {
      text += raw;
      if (endsInContinuation(text)) text += '\n';
    }
  }
  for (const auto& [name, stanza] : _settings) {
    if (name == SettingsMap::DEFAULT_STANZA) continue;
    Str raw;
    stanza.get(PropertiesMap::RAW_KEY, raw);
    if (endsInContinuation(raw)) raw += '\n';
    // Reading drops one leading "sourcetype::"; a name that still has one
    // after that is written with an extra one, so it reads back the same.
    text.appendFormat("[%s%s]\n%s\n", name.startswith(kSourcetypePrefix) ? kSourcetypePrefix : "",
                      name.c_str(), raw.c_str());
  }

  bool ok = !_isArchive;
  Pathname tmp(_path + ".tmp");
  if (ok) {
    Pathname dir = _path.toParent();
    if (!dir.exists()) ok = dir.mkdir_p(Pathname::MKDIR_NORMAL);
  }
  int fd = -1;
  if (ok) {
    fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ok = fd >= 0;
  }
  size_t done = 0;
  while (ok && done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    else done += (size_t)n;
  }
  if (fd >= 0) {
    if (ok && ::fsync(fd) != 0) ok = false;
    if (::close(fd) != 0) ok = false;
  }
  if (ok && ::rename(tmp.c_str(), _path.c_str()) != 0) ok = false;
  if (!ok) {
    if (fd >= 0) ::unlink(tmp.c_str());
    gLogger.error("Properties file (%s) cannot be written.", _path.c_str());
    return false;
  }
  struct stat st;
  if (::stat(_path.c_str(), &st) == 0) {
    _loadedSize = st.st_size;
    _loadedMtimeNs = (long long)st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    _loadedIno = st.st_ino;
  }
  return true;
}

// --- merging -----------------------------------------------------------------

void PropertiesMapConfig::overlay(PropertiesMap& dest, const PropertiesMap& src, bool mergeRaw) {
  for (const auto& [key, value] : src) {
    const char* have = dest.get(key);
    if (have == nullptr) {
      dest.put(key, value);
      continue;
    }
    if (mergeRaw && key == PropertiesMap::RAW_KEY) {
      dest.put(key, Str(have) + value);
      continue;
    }
    size_t n = strlen(have);
    if (n >= 3 && have[n - 2] == '$' && have[n - 1] == '+') {
      // The higher layer asked to extend what lies below.
      dest.put(key, Str(have, n - 2) + value);
    }
  }
}

bool PropertiesMapConfig::overlay(PropertiesMap& dest, const Str& stanzaName, bool mergeRaw,
                                  bool useRegex) {
  ScopedLock lock(_mutex);
  PropertiesMap* src = Locked_get(stanzaName, useRegex);
  if (src == nullptr) return false;
  overlay(dest, *src, mergeRaw);
  return true;
}

void PropertiesMapConfig::registerCallback(MConfigFileReadCallback* cb) {
  ScopedLock lock(callbackMutex());
  callbacks().push_back(cb);
}

void PropertiesMapConfig::unregisterCallback(MConfigFileReadCallback* cb) {
  ScopedLock lock(callbackMutex());
  auto& list = callbacks();
  for (auto it = list.begin(); it != list.end();) {
    if (*it == cb) it = list.erase(it);
    else ++it;
  }
}
