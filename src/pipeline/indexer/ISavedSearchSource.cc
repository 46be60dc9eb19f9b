#include "pipeline/indexer/ISavedSearchSource.h"

#include "util/Mutex.h"

namespace {
Mutex& sourceMutex() {
  static Mutex* m = new Mutex();
  return *m;
}
std::shared_ptr<ISavedSearchSource>& sourceSlot() {
  static auto* s = new std::shared_ptr<ISavedSearchSource>();
  return *s;
}
}  // namespace

std::shared_ptr<ISavedSearchSource> ISavedSearchSource::install(std::shared_ptr<ISavedSearchSource> source) {
  ScopedLock lock(sourceMutex());
  std::shared_ptr<ISavedSearchSource> old = std::move(sourceSlot());
  sourceSlot() = std::move(source);
  return old;
}

std::shared_ptr<ISavedSearchSource> ISavedSearchSource::installed() {
  ScopedLock lock(sourceMutex());
  return sourceSlot();
}
