#include "pipeline/indexer/PersistentMapManager.h"

#include <algorithm>

#include "pipeline/indexer/PersistentHashManager.h"
#include "util/Logger.h"

static Logger gLogger("PersistentMapManager");

namespace {

Mutex gSlotsMutex;
PersistentMapManager* gSlots[PersistentMapManager::kSlotCount];

bool validTag(const Str& tag) { return !tag.empty() && tag.find('\n') == Str::npos; }

}  // namespace

PersistentMapManager* PersistentMapManager::get_instance(unsigned slot, const char* prefix, bool create) {
  if (slot >= kSlotCount) {
    gLogger.error("No map slot %u (there are %u)", slot, unsigned(kSlotCount));
    return nullptr;
  }
  ScopedLock l(gSlotsMutex);
  PersistentMapManager*& m = gSlots[slot];
  if (m) {
    if (m->_prefix == prefix) return m;
    gLogger.error("Map slot %u holds prefix '%s', not '%s'", slot, m->_prefix.c_str(), prefix);
    return nullptr;
  }
  if (create) m = new PersistentMapManager(prefix);  // lives to the end of the process
  return m;
}

PersistentMapManager* PersistentMapManager::globalTagMapInstance() {
  return get_instance(kGlobalTagSlot, "globaltag-", true);
}
PersistentMapManager* PersistentMapManager::globaltypeMapInstance() {
  return get_instance(kGlobalTypeSlot, "globaltypeid-", true);
}
PersistentMapManager* PersistentMapManager::sourcenameMapInstance() {
  return get_instance(kSourceNameSlot, "sourcetypename-", true);
}
PersistentMapManager* PersistentMapManager::hosttagMapInstance() {
  return get_instance(kHostTagSlot, "hosttag-", true);
}
PersistentMapManager* PersistentMapManager::typetagMapInstance() {
  return get_instance(kTypeTagSlot, "typetag-", true);
}

Str PersistentMapManager::encodeTags(const std::vector<Str>& sortedTags) {
  Str out;
  for (const Str& t : sortedTags) {
    out += t;
    out += '\n';
  }
  return out;
}

void PersistentMapManager::decodeTags(const Str& value, std::vector<Str>& out) {
  out.clear();
  size_t from = 0;
  for (size_t nl; (nl = value.find('\n', from)) != Str::npos; from = nl + 1)
    if (nl > from) out.emplace_back(value, from, nl - from);
  // Stored sorted; a file changed by hand is put back in order here.
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
}

bool PersistentMapManager::getTags(const Str& key, std::vector<Str>& out) {
  Str value;
  out.clear();
  if (!PersistentHashManager::instance()->get(_prefix + key, value)) return false;
  decodeTags(value, out);
  return !out.empty();
}

bool PersistentMapManager::hasTag(const Str& key, const Str& tag) {
  std::vector<Str> tags;
  getTags(key, tags);
  return std::binary_search(tags.begin(), tags.end(), tag);
}

bool PersistentMapManager::Locked_store(const Str& key, const std::vector<Str>& tags) {
  PersistentHashManager* h = PersistentHashManager::instance();
  return tags.empty() ? h->remove(_prefix + key) : h->put(_prefix + key, encodeTags(tags));
}

bool PersistentMapManager::addTag(const Str& key, const Str& tag) {
  if (!validTag(tag)) return false;
  ScopedLock l(_mutex);
  std::vector<Str> tags;
  getTags(key, tags);
  auto at = std::lower_bound(tags.begin(), tags.end(), tag);
  if (at != tags.end() && *at == tag) return true;
  tags.insert(at, tag);
  return Locked_store(key, tags);
}

bool PersistentMapManager::removeTag(const Str& key, const Str& tag) {
  ScopedLock l(_mutex);
  std::vector<Str> tags;
  getTags(key, tags);
  auto at = std::lower_bound(tags.begin(), tags.end(), tag);
  if (at == tags.end() || *at != tag) return true;
  tags.erase(at);
  return Locked_store(key, tags);
}

bool PersistentMapManager::setTags(const Str& key, const std::vector<Str>& tags) {
  if (!std::all_of(tags.begin(), tags.end(), validTag)) return false;
  std::vector<Str> sorted(tags);
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  ScopedLock l(_mutex);
  return Locked_store(key, sorted);
}

bool PersistentMapManager::removeKey(const Str& key) {
  ScopedLock l(_mutex);
  return PersistentHashManager::instance()->remove(_prefix + key);
}

std::vector<std::pair<Str, std::vector<Str>>> PersistentMapManager::enumerate(const Str& keyPrefix) {
  std::vector<std::pair<Str, std::vector<Str>>> out;
  for (const auto& kv : PersistentHashManager::instance()->enumerate(_prefix + keyPrefix)) {
    out.emplace_back(kv.first.substr(_prefix.size()), std::vector<Str>());
    decodeTags(kv.second, out.back().second);
  }
  return out;
}

std::vector<Str> PersistentMapManager::getKeysWithTag(const Str& tag, const Str& keyPrefix) {
  std::vector<Str> out;
  for (const auto& kv : enumerate(keyPrefix))
    if (std::binary_search(kv.second.begin(), kv.second.end(), tag)) out.push_back(kv.first);
  return out;
}
