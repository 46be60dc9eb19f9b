#include "search/IdProvider.h"

#include <atomic>
#include <ctime>

Str IdProvider::getNextId() {
  static const long long startSeconds = static_cast<long long>(time(nullptr));
  static std::atomic<unsigned long long> counter{0};
  unsigned long long n = ++counter;
  return Str::fromFormat("%lld.%llu", startSeconds, n);
}
