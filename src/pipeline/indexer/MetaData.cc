#include "pipeline/indexer/MetaData.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("MetaData");

MetaData::MetaData(const Pathname& dir, const Str& fileName, const Str& tableName)
    : _dir(dir), _path(dir / fileName), _tableName(tableName) {}

size_t MetaData::normalizeWord(const StrSegment& word, char* out, size_t size, bool lowercase) {
  assert(size > 0);
  size_t n = word.size() < size - 1 ? word.size() : size - 1;
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = (unsigned char)word[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f')
      c = ' ';
    else if (c < 0x20 || c == 0x7f)
      c = '?';
    else if (lowercase && c >= 'A' && c <= 'Z')
      c = (unsigned char)(c + 32);
    out[i] = char(c);
  }
  out[n] = '\0';
  return n;
}

long MetaData::Locked_find(const StrSegment& word) {
  size_t n = normalizeWord(word, _key, sizeof _key, true);
  auto it = _index.find(std::string_view(_key, n));
  return it == _index.end() ? -1 : long(it->second);
}

long MetaData::Locked_newRow(const StrSegment& word, const char* key, size_t keyLen) {
  WordPositionData row;
  row._hashCode = _data.size();
  char display[kMaxDisplay + 1];
  size_t n = normalizeWord(word, display, sizeof display, false);
  // Source types are shown as "sourcetype::..." whatever case they came in.
  if (n >= 10 && std::memcmp(display, "sourceType", 10) == 0) display[6] = 't';
  row.word.assign(display, n);
  _data.push_back(std::move(row));
  _index.emplace(Str(key, keyLen), _data.back()._hashCode);
  return long(_data.back()._hashCode);
}

long MetaData::Locked_addWord(const StrSegment& word, int64_t t, bool noCreate) {
  _dirty = true;
  long code;
  if (_lastCode >= 0 && word.view() == std::string_view(_lastWord)) {
    code = _lastCode;
  } else {
    size_t n = normalizeWord(word, _key, sizeof _key, true);
    auto it = _index.find(std::string_view(_key, n));
    if (it != _index.end()) {
      code = long(it->second);
    } else {
      if (noCreate) return -1;
      code = Locked_newRow(word, _key, n);
    }
    _lastWord.assign(word.data(), word.size());
    _lastCode = code;
  }
  assert(size_t(code) < _data.size());
  assert(_data[code]._hashCode == uint64_t(code));
  _data[code].add(t);
  _totals.add(t);
  return code;
}

long MetaData::addWord(const StrSegment& word, int64_t t, bool noCreate) {
  ScopedLock l(_mutex);
  return Locked_addWord(word, t, noCreate);
}

long MetaData::getCodeForWord(const StrSegment& word) {
  ScopedLock l(_mutex);
  return Locked_find(word);
}

bool MetaData::getWordForCode(uint64_t code, Str& out) {
  ScopedLock l(_mutex);
  if (code >= _data.size()) return false;
  out = _data[code].word;
  return true;
}

bool MetaData::getWordData(uint64_t code, WordPositionData& out) {
  ScopedLock l(_mutex);
  if (code >= _data.size()) return false;
  out = _data[code];
  assert(out._hashCode == code);
  return true;
}

bool MetaData::decrement(const StrSegment& word, uint64_t n) {
  ScopedLock l(_mutex);
  long code = Locked_find(word);
  if (code < 0) return false;
  WordPositionData& row = _data[code];
  uint64_t d = n < row.count ? n : row.count;
  row.count -= d;
  _totals.count -= d < _totals.count ? d : _totals.count;
  _dirty = true;
  return true;
}

std::vector<Str> MetaData::getAllKeys() {
  ScopedLock l(_mutex);
  std::vector<Str> out;
  out.reserve(_data.size());
  for (const auto& r : _data) out.push_back(r.word);
  return out;
}

std::vector<WordPositionData> MetaData::getMetaData(size_t startPosition, size_t count) {
  assert(startPosition == 0);
  ScopedLock l(_mutex);
  size_t n = (count == 0 || count > _data.size()) ? _data.size() : count;
  return std::vector<WordPositionData>(_data.begin(), _data.begin() + long(n));
}

bool MetaData::getMinAndMaxTimes(int64_t& minTime, int64_t& maxTime) {
  ScopedLock l(_mutex);
  if (_totals.firstTime == WordPositionData::kNoTime) return false;
  minTime = _totals.firstTime;
  maxTime = _totals.lastTime;
  return true;
}

uint64_t MetaData::getTotalCount() {
  ScopedLock l(_mutex);
  return _totals.count;
}

size_t MetaData::size() {
  ScopedLock l(_mutex);
  return _data.size();
}

long MetaData::addWordPositionData(const WordPositionData& in) {
  ScopedLock l(_mutex);
  long code = Locked_find(in.word);
  if (code < 0) code = Locked_newRow(in.word, _key, std::strlen(_key));
  WordPositionData& row = _data[code];
  row.count += in.count;
  _totals.count += in.count;
  if (in.firstTime < row.firstTime) row.firstTime = in.firstTime;
  if (in.lastTime > row.lastTime) row.lastTime = in.lastTime;
  if (in.recentTime > row.recentTime) row.recentTime = in.recentTime;
  if (in.firstTime < _totals.firstTime) _totals.firstTime = in.firstTime;
  if (in.lastTime > _totals.lastTime) _totals.lastTime = in.lastTime;
  if (in.recentTime > _totals.recentTime) _totals.recentTime = in.recentTime;
  _dirty = true;
  return code;
}

void MetaData::Locked_clear() {
  _data.clear();
  _index.clear();
  _totals = WordPositionData();
  _lastWord.clear();
  _lastCode = -1;
}

void MetaData::clear() {
  ScopedLock l(_mutex);
  Locked_clear();
  _dirty = true;
}

size_t MetaData::open() {
  ScopedLock l(_mutex);
  Locked_clear();
  _dirty = false;
  FILE* f = std::fopen(_path.c_str(), "r");
  if (!f) return 0;
  char line[4096];
  WordPositionData row;
  while (std::fgets(line, sizeof line, f)) {
    size_t len = std::strlen(line);
    if (len == 0 || line[len - 1] != '\n') {
      gLogger.warn("%s: last line is incomplete, ignored", _path.c_str());
      break;
    }
    if (!row.fromString(line) || row._hashCode != _data.size() ||
        row.word.find_first_of("\t\n") != Str::npos) {
      gLogger.warn("%s: bad line %zu, the rest of the file is ignored", _path.c_str(), _data.size() + 1);
      break;
    }
    size_t n = normalizeWord(row.word, _key, sizeof _key, true);
    if (_index.count(std::string_view(_key, n))) {
      gLogger.warn("%s: repeated word on line %zu, the rest of the file is ignored", _path.c_str(),
                   _data.size() + 1);
      break;
    }
    _index.emplace(Str(_key, n), row._hashCode);
    _totals.count += row.count;
    if (row.count) {
      if (row.firstTime < _totals.firstTime) _totals.firstTime = row.firstTime;
      if (row.lastTime > _totals.lastTime) _totals.lastTime = row.lastTime;
      if (row.recentTime > _totals.recentTime) _totals.recentTime = row.recentTime;
    }
    _data.push_back(row);
  }
  std::fclose(f);
  return _data.size();
}

void MetaData::Locked_write() {
  Pathname temp(_path + ".temp");
  FILE* f = std::fopen(temp.c_str(), "w");
  if (!f) {
    gLogger.fatal("Unable to open %s because of %m", temp.c_str());
    throw MetaDataException("Unable to open %s", temp.c_str());
  }
  bool ok = true;
  for (const auto& r : _data) {
    Str s = r.toString();
    if (std::fwrite(s.data(), 1, s.size(), f) != s.size()) ok = false;
  }
  if (std::fclose(f) != 0) ok = false;
  if (!ok || !temp.renameTo(_path)) {
    gLogger.error("Unable to write %s: %m", _path.c_str());
    temp.unlink();
    return;
  }
  _dirty = false;
}

void MetaData::service(bool force) {
  ScopedLock l(_mutex);
  if (!force && ++_serviceCalls < kServiceInterval) return;
  _serviceCalls = 0;
  if (_dirty) Locked_write();
}
