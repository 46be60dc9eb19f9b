#include "framework/MetricsManager.h"

void metric::add(const Str& key, unsigned long long value) {
  Str v;
  v.append_unsignedlonglong(value);
  pairs.emplace_back(key, std::move(v));
}

MetricsManager& MetricsManager::instance() {
  static MetricsManager* m = new MetricsManager();  // never destroyed: used until exit
  return *m;
}

TFunctor* MetricsManager::registerCallback(const Str& name, std::unique_ptr<TFunctor> functor) {
  ScopedLock l(_mutex);
  TFunctor* raw = functor.get();
  _callbacks[name] = std::move(functor);
  return raw;
}

bool MetricsManager::unregisterCallback(const Str& name, const TFunctor* which) {
  ScopedLock l(_mutex);
  auto it = _callbacks.find(name);
  if (it == _callbacks.end()) return false;
  if (which != nullptr && it->second.get() != which) return false;
  _callbacks.erase(it);
  return true;
}

bool MetricsManager::isRegistered(const Str& name) const {
  ScopedLock l(_mutex);
  return _callbacks.count(name) != 0;
}

std::vector<Str> MetricsManager::collect() {
  std::vector<Str> lines;
  ScopedLock l(_mutex);
  lines.reserve(_callbacks.size());
  for (auto& [name, functor] : _callbacks) {
    metric m;
    (*functor)(&m);
    Str line(name);
    line += ":";
    const char* sep = " ";
    for (const auto& [k, v] : m.pairs) {
      line += sep;
      line += k;
      line += "=";
      line += v;
      sep = ", ";
    }
    lines.push_back(std::move(line));
  }
  return lines;
}
