#include "pipeline/indexer/ITagResolver.h"

#include "util/Mutex.h"

namespace {
Mutex& resolverMutex() {
  static Mutex* m = new Mutex();
  return *m;
}
std::shared_ptr<ITagResolver>& resolverSlot() {
  static auto* s = new std::shared_ptr<ITagResolver>();
  return *s;
}
}  // namespace

std::shared_ptr<ITagResolver> ITagResolver::install(std::shared_ptr<ITagResolver> resolver) {
  ScopedLock lock(resolverMutex());
  std::shared_ptr<ITagResolver> old = std::move(resolverSlot());
  resolverSlot() = std::move(resolver);
  return old;
}

std::shared_ptr<ITagResolver> ITagResolver::installed() {
  ScopedLock lock(resolverMutex());
  return resolverSlot();
}
