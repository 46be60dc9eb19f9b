// RecursiveMutex: re-entry by the owner, exclusion of other threads, and the
// release only at the last unlock.
#include "pipeline/indexer/RecursiveMutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

bool otherThreadCanTake(RecursiveMutex& m) {
  bool got = false;
  std::thread([&] {
    got = m.tryLock();
    if (got) {
      EXPECT_TRUE(m.isHeldByMe());
      m.unlock();
    }
  }).join();
  return got;
}

TEST(RecursiveMutex, OwnerReentersOthersWaitUntilCountIsZero) {
  RecursiveMutex m;
  EXPECT_TRUE(otherThreadCanTake(m));
  m.lock();
  m.claim();
  EXPECT_TRUE(m.tryLock());
  EXPECT_EQ(m.ownerCount(), 3u);
  EXPECT_TRUE(m.isHeldByMe());
  EXPECT_FALSE(otherThreadCanTake(m));
  m.unlock();
  m.unlock();
  EXPECT_FALSE(otherThreadCanTake(m));  // one hold left
  m.unlock();
  EXPECT_EQ(m.ownerCount(), 0u);
  EXPECT_FALSE(m.isHeldByMe());
  EXPECT_TRUE(otherThreadCanTake(m));
}

TEST(RecursiveMutex, ExcludesBetweenThreads) {
  RecursiveMutex m;
  long counter = 0;
  auto work = [&] {
    for (int i = 0; i < 20000; ++i) {
      ScopedRecursiveLock outer(m);
      ScopedRecursiveLock inner(m);
      ++counter;
    }
  };
  std::thread a(work), b(work);
  work();
  a.join();
  b.join();
  EXPECT_EQ(counter, 60000);
  EXPECT_EQ(m.ownerCount(), 0u);
}

}  // namespace
