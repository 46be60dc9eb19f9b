#include "search/processors/KVRegex.h"

#include <stdexcept>

#include "search/processors/ResultInserter.h"
#include "util/Logger.h"
#include "util/RE.h"

namespace {
Logger gLogger("KVRegex");

bool fail(Str* error, const Str& text) {
  gLogger.error("%s", text.c_str());
  if (error) *error = text;
  return false;
}

// Splits at runs of blanks.
std::vector<Str> words(const Str& s) {
  std::vector<Str> out;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
    size_t b = i;
    while (i < s.size() && !isspace(static_cast<unsigned char>(s[i]))) ++i;
    if (i > b) out.emplace_back(s.substr(b, i - b));
  }
  return out;
}
}  // namespace

bool KVRegex::init(const Str& regex, const Str& format, const Str& name, Str* error) {
  static const RE kNameGroup("(.*\\S)::\\$(\\d+)");
  static const RE kGroupGroup("\\$(\\d+)::\\$(\\d+)");
  static const RE kNameValue("(.*\\S)::(.*)");
  static const RE kGroupRef("\\$\\d+");

  _name = name;
  _items.clear();
  gLogger.debug("Initializing regex: transform_name='%s'", name.c_str());
  if (regex.empty()) return fail(error, Str::fromFormat("Missing REGEX for: transform_name='%s'", name.c_str()));
  if (format.empty()) return fail(error, Str::fromFormat("Missing FORMAT, transform_name='%s'", name.c_str()));
  try {
    _re.init("(?ms)" + regex, true);
  } catch (const std::exception& e) {
    return fail(error, Str::fromFormat("Cannot compile RE \"%s\" for transform_name='%s': %s", regex.c_str(),
                                       name.c_str(), e.what()));
  }
  const unsigned groups = _re.getCaptureCount();
  if (groups == 0)
    return fail(error,
                Str::fromFormat("Regex \"%s\" has no capturing groups, transform_name='%s'", regex.c_str(), name.c_str()));

  for (const Str& w : words(format)) {
    std::string a, b;
    Item item{Str(), 0, 0, Str()};
    if (kNameGroup.FullMatch(w, &a, &b) && !kGroupRef.FullMatch(a)) {
      item.name = a;
      item.valueGroup = static_cast<unsigned>(Str(b).toUnsignedLong(0));
    } else if (kGroupGroup.FullMatch(w, &a, &b)) {
      item.nameGroup = static_cast<unsigned>(Str(a).toUnsignedLong(0));
      item.valueGroup = static_cast<unsigned>(Str(b).toUnsignedLong(0));
    } else if (kNameValue.FullMatch(w, &a, &b)) {
      item.name = a;
      item.value = b;
    } else {
      gLogger.warn("Ignoring FORMAT item '%s', transform_name='%s'", w.c_str(), name.c_str());
      continue;
    }
    for (unsigned id : {item.nameGroup, item.valueGroup})
      if (id > groups)
        return fail(error, Str::fromFormat("IndexOutOfBounds invalid FORMAT capturing group id: id=%i, "
                                           "transform_name='%s'",
                                           int(id), name.c_str()));
    if (item.nameGroup == 0 && item.name.empty()) continue;
    _items.push_back(item);
  }
  _repeat = false;
  for (const Item& it : _items) _repeat = _repeat || it.nameGroup != 0;
  if (_items.empty())
    return fail(error, Str::fromFormat("No valid key names found in FORMAT for transform_name='%s'", name.c_str()));
  return true;
}

int KVRegex::matchAndInsert(const StrSegment& text, ResultInserter& ins) const {
  if (!_re.isInitialized()) return 0;
  int taken = 0;
  StrSegment rest(text.data() ? text.data() : "", text.size());
  RegexMatch& m = ins.scratch();
  while (!ins.full()) {
    if (!_re.match(rest, &m, true)) break;
    for (const Item& it : _items) {
      StrSegment value = it.valueGroup ? m.getGroup(it.valueGroup) : StrSegment(it.value);
      if (it.valueGroup && value.data() == nullptr) continue;
      if (it.nameGroup) {
        const StrSegment& key = m.getGroup(it.nameGroup);
        if (key.data() == nullptr || key.empty()) continue;
        taken += ins.insert(key, value, true);
      } else {
        taken += ins.insert(StrSegment(it.name), value, false);
      }
    }
    if (!_repeat) break;
    if (m.getMatchEnd() == 0) {
      // An empty match at the start: step one byte to make progress.
      if (rest.empty()) break;
      rest.remove_prefix(1);
    }
  }
  return taken;
}
