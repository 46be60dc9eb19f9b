#include "search/SearchFactory.h"

#include <map>

#include "search/SearchProcessor.h"
#include "util/Mutex.h"

static Str lowerStr(const Str& s) {
  Str out(s);
  lowercaseInPlace(out);
  return out;
}

namespace {

struct Entry {
  SearchFactory::Factory factory;
  bool internalOnly;
};

struct Tables {
  Mutex mutex;
  std::map<Str, Entry> registered;
  std::map<Str, Entry> builtin;
  SearchFactory::Fallback fallback = nullptr;
};

Tables& tables() {
  static Tables* t = new Tables();
  return *t;
}

SearchFactory::Factory lookup(const std::map<Str, Entry>& table, const Str& name, bool allowInternal) {
  auto it = table.find(name);
  if (it == table.end() || (it->second.internalOnly && !allowInternal)) return nullptr;
  return it->second.factory;
}

}  // namespace

void SearchFactory::registerProcessor(const Str& name, Factory factory, bool internalOnly) {
  Tables& t = tables();
  ScopedLock lock(t.mutex);
  t.registered[lowerStr(name)] = Entry{factory, internalOnly};
}

void SearchFactory::registerBuiltin(const Str& name, Factory factory, bool internalOnly) {
  Tables& t = tables();
  ScopedLock lock(t.mutex);
  t.builtin[lowerStr(name)] = Entry{factory, internalOnly};
}

void SearchFactory::setFallback(Fallback fallback) {
  Tables& t = tables();
  ScopedLock lock(t.mutex);
  t.fallback = fallback;
}

void SearchFactory::unregister(const Str& name) {
  Tables& t = tables();
  ScopedLock lock(t.mutex);
  t.registered.erase(lowerStr(name));
  t.builtin.erase(lowerStr(name));
}

SearchFactory::Factory SearchFactory::getMappedProcessor(const Str& name, bool allowInternal) {
  Tables& t = tables();
  Str lower = lowerStr(name);
  ScopedLock lock(t.mutex);
  if (Factory f = lookup(t.registered, lower, allowInternal)) return f;
  return lookup(t.builtin, lower, allowInternal);
}

bool SearchFactory::isProcessorRegistered(const Str& name, bool allowInternal) {
  return getMappedProcessor(name, allowInternal) != nullptr;
}

SearchProcessor* SearchFactory::getProcessor(const Str& name, bool allowInternal) {
  Str lower = lowerStr(name);
  if (Factory f = getMappedProcessor(lower, allowInternal)) return f(lower);
  Fallback fallback;
  {
    Tables& t = tables();
    ScopedLock lock(t.mutex);
    fallback = t.fallback;
  }
  if (fallback) {
    Str bare = lower.startswith("script:") ? lower.substr(7) : lower;
    if (SearchProcessor* p = fallback(bare)) return p;
  }
  throw SearchProcessorException("Unknown search operation: '" + lower + "'");
}
