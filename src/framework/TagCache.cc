#include "framework/TagCache.h"

#include "framework/SavedVelmor.h"
#include "util/Logger.h"

static Logger gLogger("SavedVelmorManager");

void TagCache::add(const Str& tag, const Str& name) {
  if (tag.empty() || name.empty()) return;
  auto it = _byTag.find(tag);
  if (it == _byTag.end()) {
    gLogger.debug("Adding new tag='%s', ss='%s'", tag.c_str(), name.c_str());
    _byTag[tag].insert(name);
    return;
  }
  gLogger.debug("Attaching ss='%s' to tag='%s'", name.c_str(), tag.c_str());
  it->second.insert(name);
}

void TagCache::removeName(const Str& name) {
  for (auto it = _byTag.begin(); it != _byTag.end();) {
    it->second.erase(name);
    if (it->second.empty()) {
      it = _byTag.erase(it);
    } else {
      ++it;
    }
  }
}

std::vector<Str> TagCache::namesFor(const Str& tag) const {
  auto it = _byTag.find(tag);
  if (it == _byTag.end()) return {};
  return std::vector<Str>(it->second.begin(), it->second.end());
}

std::vector<Str> TagCache::tags() const {
  std::vector<Str> out;
  for (const auto& kv : _byTag) out.push_back(kv.first);
  return out;
}

Str TagCache::xml(const Str& type, const Str& tag) const {
  Str out = "<tags type=\"";
  SavedVelmor::appendXmlEscaped(out, type);
  out += "\">";
  for (const auto& [t, names] : _byTag) {
    if (!tag.empty() && t != tag) continue;
    out += "<tag name=\"";
    SavedVelmor::appendXmlEscaped(out, t);
    out += "\">";
    for (const Str& n : names) {
      out += "<name>";
      SavedVelmor::appendXmlEscaped(out, n);
      out += "</name>";
    }
    out += "</tag>";
  }
  out += "</tags>";
  return out;
}
