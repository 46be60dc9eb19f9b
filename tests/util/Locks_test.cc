// Mutex, ConditionBaseClass and ReadWriteLock between real threads. No test
// sleeps to order threads: they wait on conditions or spin on observable
// state.
#include "util/ReadWriteLock.h"

#include <sched.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"

namespace {

// A one-way gate between two threads.
class Gate {
 public:
  void open() {
    ScopedLock l(_m);
    _open = true;
    _c.internal_wake_all();
  }
  void pass() {
    ScopedLock l(_m);
    while (!_open) _c.wait(_m);
  }

 private:
  Mutex _m;
  ConditionBaseClass _c;
  bool _open = false;
};

TEST(Mutex, TryLockSeesOtherHolder) {
  Mutex m;
  EXPECT_TRUE(m.tryLock());
  bool otherGot = true;
  std::thread([&] { otherGot = m.tryLock(); }).join();
  EXPECT_FALSE(otherGot);
  m.unlock();
  std::thread([&] {
    otherGot = m.tryLock();
    if (otherGot) m.unlock();
  }).join();
  EXPECT_TRUE(otherGot);
}

TEST(ConditionBaseClass, TimedWait) {
  Mutex m;
  ConditionBaseClass c;
  {
    ScopedLock l(m);
    EXPECT_FALSE(c.wait(m, 0.02));  // nobody signals
    EXPECT_FALSE(c.wait(m, -1));    // a past deadline is a time-out at once
  }
  bool flag = false;
  bool signalled = false;
  std::thread t([&] {
    ScopedLock l(m);
    flag = true;
    c.internal_wake_one();
  });
  {
    ScopedLock l(m);
    while (!flag) signalled = c.wait(m, 600);
  }
  t.join();
  // Either the waiter slept and was woken, or the flag was already set.
  EXPECT_TRUE(flag);
  (void)signalled;
}

TEST(ReadWriteLock, ReadersShareAndSetupLater) {
  ReadWriteLock lock;
  ScopedReader later;
  EXPECT_FALSE(later.isSetUp());
  {
    ScopedReader a(lock);
    ScopedReader b(lock);
    EXPECT_EQ(lock.readerCount(), 2u);
    later.setup(lock);
    EXPECT_TRUE(later.isSetUp());
    EXPECT_EQ(lock.readerCount(), 3u);
  }
  EXPECT_EQ(lock.readerCount(), 1u);
}

TEST(ReadWriteLock, WriterWaitsForReadersAndHoldsOutNewOnes) {
  ReadWriteLock lock;
  std::atomic<bool> wrote{false};
  std::atomic<bool> lateReaderSawWrite{false};
  auto reader = std::make_unique<ScopedReader>(lock);
  std::thread writer([&] {
    ScopedWriter w(lock);
    wrote = true;
  });
  while (lock.waitingWriterCount() == 0) sched_yield();
  EXPECT_FALSE(wrote);  // a reader is still in
  std::thread lateReader([&] {
    ScopedReader r(lock);
    lateReaderSawWrite = wrote.load();
  });
  reader.reset();  // last reader out wakes the writer
  writer.join();
  lateReader.join();
  EXPECT_TRUE(wrote);
  EXPECT_TRUE(lateReaderSawWrite);
  EXPECT_EQ(lock.readerCount(), 0u);
}

TEST(ReadWriteLock, WriterExcludesReaders) {
  ReadWriteLock lock;
  Gate writerIn, finish;
  int value = 0;
  int readerSaw = -1;
  std::thread writer([&] {
    ScopedWriter w(lock);
    value = 1;
    writerIn.open();
    finish.pass();
    value = 2;
  });
  writerIn.pass();
  std::thread reader([&] {
    ScopedReader r(lock);
    readerSaw = value;
  });
  finish.open();
  writer.join();
  reader.join();
  EXPECT_EQ(readerSaw, 2);
}

TEST(ReadWriteLock, WritersExcludeEachOther) {
  ReadWriteLock lock;
  long counter = 0;
  std::thread a([&] {
    for (int i = 0; i < 20000; ++i) {
      ScopedWriter w(lock);
      ++counter;
    }
  });
  for (int i = 0; i < 20000; ++i) {
    ScopedWriter w(lock);
    ++counter;
  }
  a.join();
  EXPECT_EQ(counter, 40000);
}

#ifndef NDEBUG
TEST(ReadWriteLockDeathTest, UseAfterDestroyAsserts) {
  alignas(ReadWriteLock) unsigned char storage[sizeof(ReadWriteLock)];
  ReadWriteLock* lock = new (storage) ReadWriteLock();
  lock->~ReadWriteLock();
  EXPECT_DEATH({ ScopedReader r(*lock); }, "");
}
#endif

}  // namespace
