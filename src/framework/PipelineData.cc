#include "framework/PipelineData.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "libbundle/PropertiesMap.h"
#include "util/ExtraTimevalParseInfo.h"

const Str PipelineData::rawKey = "_raw";
const Str PipelineData::confKey = "_conf";
const Str PipelineData::doneKey = "_done";
const Str PipelineData::hostKey = "MetaData:Host";
const Str PipelineData::metaKey = "_meta";
const Str PipelineData::pathKey = "_path";
const Str PipelineData::timeKey = "_time";
const Str PipelineData::typeKey = "MetaData:FinalType";
const Str PipelineData::indexKey = "_MetaData:Index";
const Str PipelineData::inputKey = "_MetaData:Input";
const Str PipelineData::queueKey = "queue";
const Str PipelineData::sourceKey = "MetaData:Source";
const Str PipelineData::channelKey = "_channel";
const Str PipelineData::sourceTypeKey = "MetaData:Sourcetype";
const Str PipelineData::indexTermsKey = "_MetaData:IndexTerms";
const Str PipelineData::reportingHostKey = "ReportingHost";
const Str PipelineData::hostRegexKey = "host_regex";
const Str PipelineData::hostSegmentKey = "host_segment";
const Str PipelineData::processedKey = "_processed";
const Str PipelineData::followTailKey = "followTail";
const Str PipelineData::shutdownKey = "_shutdown";
const Str PipelineData::signatureKey = "_sig";
const Str PipelineData::seekAddrKey = "seekaddr";
const Str PipelineData::blockSignatureKey = "blockSignature";
const Str PipelineData::signedSourceKey = "signedSource";
const Str PipelineData::isTokenizedKey = "_isTokenized";
const Str PipelineData::hostField = "host";
const Str PipelineData::sourceField = "source";
const Str PipelineData::sourceTypeField = "sourcetype";
const Str PipelineData::cdKey = "_cd";

namespace {

// The shared key strings of the well-known keys, made once. Function-local so
// that it is built after the key constants above, whatever the order of
// static initialisation across files.
const std::unordered_map<std::string_view, PipelineData::SharedStr>& wellKnownKeys() {
  static const auto* table = [] {
    auto* t = new std::unordered_map<std::string_view, PipelineData::SharedStr>;
    for (const Str* k :
         {&PipelineData::rawKey, &PipelineData::confKey, &PipelineData::doneKey, &PipelineData::hostKey,
          &PipelineData::metaKey, &PipelineData::pathKey, &PipelineData::timeKey, &PipelineData::typeKey,
          &PipelineData::indexKey, &PipelineData::inputKey, &PipelineData::queueKey, &PipelineData::sourceKey,
          &PipelineData::channelKey, &PipelineData::sourceTypeKey, &PipelineData::indexTermsKey,
          &PipelineData::reportingHostKey, &PipelineData::hostRegexKey, &PipelineData::hostSegmentKey,
          &PipelineData::processedKey, &PipelineData::followTailKey, &PipelineData::shutdownKey,
          &PipelineData::signatureKey, &PipelineData::seekAddrKey, &PipelineData::blockSignatureKey,
          &PipelineData::signedSourceKey, &PipelineData::hostField, &PipelineData::sourceField,
          &PipelineData::sourceTypeField, &PipelineData::cdKey}) {
      // The shared key is the constant itself (no owner: it lives as long
      // as the program), so a lookup by the constant finds its pair by the
      // address of its text.
      PipelineData::SharedStr shared(PipelineData::SharedStr(), k);
      t->emplace(std::string_view(*shared), shared);
    }
    return t;
  }();
  return *table;
}

const Str kEmpty;
const Str kOne = "1";

bool sameText(const Str& k, std::string_view key) {
  return k.size() == key.size() && std::memcmp(k.data(), key.data(), key.size()) == 0;
}

void putU32(Str& out, uint32_t v) { out.append(reinterpret_cast<const char*>(&v), sizeof v); }

bool getU32(const char*& p, const char* end, uint32_t& v) {
  if (size_t(end - p) < sizeof v) return false;
  memcpy(&v, p, sizeof v);
  p += sizeof v;
  return true;
}

bool getBytes(const char*& p, const char* end, Str& out) {
  uint32_t n;
  if (!getU32(p, end, n) || size_t(end - p) < n) return false;
  out.assign(p, n);
  p += n;
  return true;
}

bool equalsNoCase(std::string_view a, const char* b) {
  size_t n = strlen(b);
  return a.size() == n && strncasecmp(a.data(), b, n) == 0;
}

}  // namespace

PipelineData::SharedStr PipelineData::internKey(std::string_view key) {
  const auto& t = wellKnownKeys();
  auto it = t.find(key);
  if (it != t.end()) return it->second;
  return std::make_shared<const Str>(Str(std::string(key)));
}

bool PipelineData::checkPutSpecial(std::string_view key, const SharedStr& value) {
  if (key.empty() || key[0] != '_' || key != isTokenizedKey) return false;
  _isTokenized = value && !value->empty() && *value != "0";
  return true;
}

// Keys put by their constants are the constants themselves: a first pass
// compares the addresses of the texts only, the second the texts.
PipelineData::Map::const_iterator PipelineData::find(std::string_view key) const {
  for (auto it = _map.begin(); it != _map.end(); ++it)
    if (it->first->data() == key.data() && it->first->size() == key.size()) return it;
  for (auto it = _map.begin(); it != _map.end(); ++it)
    if (sameText(*it->first, key)) return it;
  return _map.end();
}

PipelineData::Map::iterator PipelineData::find(std::string_view key) {
  auto it = static_cast<const PipelineData*>(this)->find(key);
  return _map.begin() + (it - _map.cbegin());
}

PipelineData::SharedStr PipelineData::get(std::string_view key) const {
  if (key == isTokenizedKey && _isTokenized) return std::make_shared<const Str>(kOne);
  auto it = find(key);
  if (it == _map.end()) throw KeyNotFoundException("This key could not be found : " + std::string(key));
  return it->second;
}

PipelineData::SharedStr PipelineData::getIfAvail(std::string_view key) const {
  auto it = find(key);
  return it == _map.end() ? nullptr : it->second;
}

const char* PipelineData::getIfAvailCStr(std::string_view key) const {
  auto it = find(key);
  return it == _map.end() || !it->second ? nullptr : it->second->c_str();
}

const Str& PipelineData::getStr(std::string_view key) const {
  auto it = find(key);
  return it == _map.end() || !it->second ? kEmpty : *it->second;
}

bool PipelineData::contains(std::string_view key) const { return find(key) != _map.end(); }

void PipelineData::put(std::string_view key, SharedStr value) {
  if (checkPutSpecial(key, value)) return;
  auto it = find(key);
  if (it != _map.end()) {
    it->second = std::move(value);
    return;
  }
  if (_map.empty()) _map.reserve(kReserved);
  _map.emplace_back(internKey(key), std::move(value));
}

void PipelineData::append(std::string_view key, const Str& text) {
  auto it = find(key);
  if (it == _map.end() || !it->second) {
    put(key, text);
    return;
  }
  auto v = std::make_shared<Str>();
  v->reserve(it->second->size() + 1 + text.size());
  *v += *it->second;
  *v += ' ';
  *v += text;
  it->second = std::move(v);
}

void PipelineData::remove(std::string_view key) {
  if (key == isTokenizedKey) {
    _isTokenized = false;
    return;
  }
  auto it = find(key);
  if (it != _map.end()) _map.erase(it);
}

void PipelineData::clear() {
  _map.clear();
  _isTokenized = false;
}

std::vector<Str> PipelineData::keys() const {
  std::vector<Str> out;
  out.reserve(_map.size());
  for (const auto& [k, v] : _map) out.push_back(*k);
  return out;
}

void PipelineData::iterate(PipelineDataKeyValueAcceptor& acceptor) const {
  for (const auto& [k, v] : _map) acceptor.accept(*k, v ? *v : kEmpty);
  if (_isTokenized) acceptor.accept(isTokenizedKey, kOne);
}

void PipelineData::iterateWithoutInternal(PipelineDataKeyValueAcceptor& acceptor) const {
  for (const auto& [k, v] : _map)
    if (!k->startswith('_')) acceptor.accept(*k, v ? *v : kEmpty);
}

size_t PipelineData::sizeInBytes(bool includeKeys) const {
  size_t n = 0;
  for (const auto& [k, v] : _map) {
    if (v) n += v->size();
    if (includeKeys) n += k->size();
  }
  return n;
}

Str PipelineData::toString() const {
  std::vector<std::pair<const Str*, const Str*>> pairs;
  pairs.reserve(_map.size());
  for (const auto& [k, v] : _map) pairs.emplace_back(k.get(), v ? v.get() : &kEmpty);
  std::sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) { return *a.first < *b.first; });
  Str out;
  for (const auto& [k, v] : pairs) out.appendFormat("[%s] = %s\n", k->c_str(), v->c_str());
  if (_isTokenized) out += "(is tokenized)\n";
  return out;
}

void PipelineData::fwrite(FILE* f) const {
  Str s = toString();
  ::fwrite(s.data(), 1, s.size(), f);
}

std::shared_ptr<PipelineData> PipelineData::clone(bool deep) const {
  auto out = std::make_shared<PipelineData>();
  out->_isTokenized = _isTokenized;
  out->_map.reserve(_map.size());
  for (const auto& [k, v] : _map) out->_map.emplace_back(k, deep && v ? std::make_shared<const Str>(*v) : v);
  return out;
}

void PipelineData::mergeFrom(const PipelineData& other) {
  for (const auto& [k, v] : other._map) {
    auto it = find(std::string_view(*k));
    if (it != _map.end())
      it->second = v;
    else
      _map.emplace_back(k, v);
  }
  _isTokenized = _isTokenized || other._isTokenized;
}

void PipelineData::serialize(Str& out) const {
  putU32(out, uint32_t(_map.size() + (_isTokenized ? 1 : 0)));
  auto pair = [&out](const Str& k, const Str& v) {
    putU32(out, uint32_t(k.size()));
    out += k;
    putU32(out, uint32_t(v.size()));
    out += v;
  };
  for (const auto& [k, v] : _map) pair(*k, v ? *v : kEmpty);
  if (_isTokenized) pair(isTokenizedKey, kOne);
}

bool PipelineData::ressurrect(const char* data, size_t n) {
  clear();
  const char* p = data;
  const char* end = data + n;
  uint32_t count;
  if (!getU32(p, end, count)) return false;
  // Each pair needs at least its two lengths: a count beyond that is corrupt,
  // and must not make us reserve a huge table.
  if (count > size_t(end - p) / 8) return false;
  _map.reserve(std::max<size_t>(count, kReserved));
  Str k;
  for (uint32_t i = 0; i < count; ++i) {
    auto v = std::make_shared<Str>();
    if (!getBytes(p, end, k) || !getBytes(p, end, *v)) return false;
    put(k, std::move(v));
  }
  return p == end;
}

void PipelineData::setTimeKey(unsigned long seconds) {
  Str text;
  appendTimeText(seconds, text);
  put(timeKey, std::move(text));
}

void PipelineData::appendTimeText(unsigned long seconds, Str& out) {
  char buf[24];
  char* e = buf + sizeof buf;
  char* b = e;
  do {
    *--b = char('0' + seconds % 10);
    seconds /= 10;
  } while (seconds);
  out.append(b, size_t(e - b));
}

void PipelineData::defaultConf(Str& out) const {
  out.clear();
  out += getStr(sourceKey);
  out += '|';
  out += getStr(hostKey);
  out += '|';
  out += getStr(sourceTypeKey);
  out += '|';
  out += getStr(channelKey);
}

const Str& PipelineData::defaultConf(bool rebuild) {
  auto it = find(std::string_view(confKey));
  if (it == _map.end() || !it->second || rebuild) {
    auto v = std::make_shared<Str>();
    defaultConf(*v);
    put(confKey, v);
    return *v;
  }
  return *it->second;
}

void PipelineData::load(const PropertiesMap& stanza) {
  for (const auto& [key, value] : stanza) {
    if (value.empty()) continue;
    std::string_view k(key);
    if (equalsNoCase(k, "source"))
      put(sourceKey, "source::" + value);
    else if (equalsNoCase(k, "sourcetype"))
      put(sourceTypeKey, "sourcetype::" + value);
    else if (equalsNoCase(k, "host"))
      put(hostKey, "host::" + value);
    else if (equalsNoCase(k, "reportinghost"))
      put(reportingHostKey, "reportinghost::" + value);
    else if (equalsNoCase(k, "index"))
      put(indexKey, value);
    else if (k == rawKey)
      continue;
    else
      put(k, value);  // `_isTokenized` lands on the flag
  }
  defaultConf(true);
}

void PipelineData::load(const PropertiesMap& stanza, const Str& stanzaName) {
  put(inputKey, stanzaName);
  load(stanza);
}

void PipelineData::addMetaNoTimestamp() { append(metaKey, "timestamp::none"); }

namespace {

// Appends v in decimal, with a '-' when negative ("%ld").
void appendDecimal(Str& out, long v) {
  char buf[24];
  char* e = buf + sizeof buf;
  char* b = e;
  unsigned long u = v < 0 ? 0UL - (unsigned long)v : (unsigned long)v;
  do {
    *--b = char('0' + u % 10);
    u /= 10;
  } while (u);
  if (v < 0) *--b = '-';
  out.append(b, size_t(e - b));
}

void appendTerm(Str& out, std::string_view name, long v) {
  out.append(name.data(), name.size());
  appendDecimal(out, v);
}

}  // namespace

void PipelineData::addMetaTimeInfo(const Timeval*, const ExtraTimevalParseInfo* info) {
  Str text;
  appendMetaTimeInfo(info, text);
  append(metaKey, text);
}

void PipelineData::appendMetaTimeInfo(const ExtraTimevalParseInfo* info, Str& out) {
  static const char* const kMonths[] = {"january", "february", "march",     "april",   "may",      "june",
                                        "july",    "august",   "september", "october", "november", "december"};
  static const char* const kDays[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
  if (!info || info->precision < -2) {
    out += "timestamp::none";
    return;
  }
  // Each term is written with a blank in front; the first blank is dropped.
  const size_t start = out.size();
  if (info->precision > 0) {
    size_t digits = strnlen(info->subsecond, sizeof info->subsecond);
    if (digits > 0) {
      out += " _subsecond:.";
      out.append(info->subsecond, digits);
    }
  }
  if (info->precision >= 0) appendTerm(out, " date_second::", info->second);
  if (info->precision >= -1) {
    appendTerm(out, " date_hour::", info->hour);
    appendTerm(out, " date_minute::", info->minute);
  }
  appendTerm(out, " date_year::", info->year);
  out += " date_month::";
  out += info->month >= 0 && info->month < 12 ? kMonths[info->month] : "unknown";
  appendTerm(out, " date_mday::", info->mday);
  out += " date_wday::";
  out += info->wday >= 0 && info->wday < 7 ? kDays[info->wday] : "unknown";
  if (info->zoneKnown)
    appendTerm(out, " date_zone::", long(info->zoneOffset / 60));
  else
    out += " date_zone::local";
  out.erase(start, 1);
}
