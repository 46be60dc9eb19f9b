#include "pipeline/indexer/MetaComparator.h"

#include <cstdint>
#include <cstring>

#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "util/RE.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"

const char MetaComparator::kMissing[] = "9";

namespace {

Str timeKey(int32_t t) {
  return Str::fromFormat("0%.16llx", static_cast<unsigned long long>(static_cast<int64_t>(t) - INT32_MIN));
}

Str unquoted(const StrSegment& s) {
  Str v(s);
  while (!v.empty() && (v.front() == '"' || v.front() == '\'')) v.erase(0, 1);
  while (!v.empty() && (v.back() == '"' || v.back() == '\'')) v.pop_back();
  return v;
}

bool firstValue(const Regex& re, const Str& text, Str& out) {
  if (text.empty()) return false;
  StrSegment seg(text.data(), text.size());
  RegexMatch m;
  if (!re.match(seg, &m)) return false;
  out = unquoted(m.getGroup(1));
  return !out.empty();
}

}  // namespace

Str MetaComparator::valueKey(const Str& value) {
  double d;
  if (value.tryToDouble(d) && d == d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    bits = (bits & 0x8000000000000000ULL) ? ~bits : (bits | 0x8000000000000000ULL);
    return Str::fromFormat("0%.16llx", static_cast<unsigned long long>(bits));
  }
  Str key("1");
  key += value;
  return key;
}

Str MetaComparator::wordKey(const ValueWrapper& id) const {
  Str word;
  bool known = false;
  uint32_t code = 0;
  if (_field == "host") {
    code = id.host;
    known = _policy && _policy->getGlobalHostWordForCode(id.bucketId, code, word);
  } else if (_field == "source") {
    code = id.source;
    known = _policy && _policy->getGlobalSourceWordForCode(id.bucketId, code, word);
  } else {
    code = id.sourceType;
    known = _policy && _policy->getGlobalSourceTypeWordForCode(id.bucketId, code, word);
  }
  if (known) {
    Str key("1");
    key += word;
    return key;
  }
  return Str::fromFormat("2%.8lx", static_cast<unsigned long>(code));
}

void MetaComparator::computeKeys(const std::vector<ValueWrapper>& ids, std::vector<Str>& keys) const {
  keys.assign(ids.size(), Str());
  if (_field == "time" || _field == "_time") {
    for (size_t i = 0; i < ids.size(); ++i) keys[i] = timeKey(ids[i].time);
    return;
  }
  if (_field == "host" || _field == "source" || _field == "sourcetype") {
    for (size_t i = 0; i < ids.size(); ++i) keys[i] = wordKey(ids[i]);
    return;
  }
  keys.assign(ids.size(), Str(kMissing));
  if (!_policy || ids.empty()) return;
  const Str quoted = RE::QuoteMeta(_field);
  const Regex colons("(?:^|[^\\w])" + quoted + "::(\\S+)");
  const Regex equals("(?:^|[^\\w])" + quoted + "=(\\S+)");
  std::vector<DataWrapper> events;
  std::vector<bool> ok;
  _policy->read(ids, events, ok);
  for (size_t i = 0; i < ids.size() && i < events.size(); ++i) {
    if (!ok[i]) continue;
    Str value;
    if (firstValue(colons, events[i].meta, value) || firstValue(colons, events[i].raw, value) ||
        firstValue(equals, events[i].raw, value))
      keys[i] = valueKey(value);
  }
}
