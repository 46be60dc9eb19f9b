#include "searchthing/lock.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/vfs.h>

#include <string>

#include "searchthing/extio.h"
#include "searchthing/osfile.h"
#include "st_test_util.h"

TEST(LockFsKind, OnlyListedFileSystemsAreLockable) {
  struct Row {
    int64_t magic;
    int kind;
  } rows[] = {
      {0x52654973, 1}, {0xEF53, 1},     {0xA501FCF5, 1}, {0x565A4653, 1}, {0x58465342, 1},
      {0x6969, 2},     {0x01021994, 0},  // tmpfs
      {0x9123683E, 0},                   // btrfs
      {0, 0},
  };
  for (const Row& r : rows) EXPECT_EQ(st_lock_fs_kind(r.magic), r.kind) << std::hex << r.magic;
}

TEST(Lock, ExclusiveCreateLifecycle) {
  SKIP_UNLESS_LOCKABLE();
  ScratchDir dir;
  std::string target = dir.sub("idx");
  EXPECT_EQ(st_islocked(target.c_str()), 0);
  EXPECT_EQ(st_lock(target.c_str()), 0);
  EXPECT_EQ(ospath_try_stat((target + ".lock").c_str()), 1) << "lock lies beside the directory";
  EXPECT_EQ(st_islocked(target.c_str()), 1);
  EXPECT_EQ(st_lock_owner(target.c_str()), long(getpid())) << "the lock names its taker from the start";
  EXPECT_EQ(st_lock(target.c_str()), 1) << "second taker sees it held";
  EXPECT_EQ(st_timeout_lock(target.c_str(), 0), 1) << "zero timeout: one attempt, still held";
  // The private file the pid is written to before it takes the lock's name
  // is gone after a taken and after a refused attempt.
  const std::string temp = target + ".lock." + std::to_string(getpid());
  EXPECT_EQ(ospath_try_stat(temp.c_str()), 0);
  EXPECT_EQ(st_unlock(target.c_str()), 0);
  EXPECT_EQ(st_islocked(target.c_str()), 0);
  EXPECT_EQ(st_unlock(target.c_str()), 0) << "unlocking what isn't there is fine";
  EXPECT_EQ(st_timeout_lock(target.c_str(), 1), 0);
  EXPECT_EQ(st_unlock(target.c_str()), 0);
}

TEST(Lock, ForcedLockNeverBreaksALiveLock) {
  SKIP_UNLESS_LOCKABLE();
  ScratchDir dir;
  std::string target = dir.sub("idx");
  ASSERT_EQ(st_lock(target.c_str()), 0);
  // The age test compares against time / 1000, so a lock made now is never
  // old enough: the forced lock gives up with "held" and the guard is gone.
  EXPECT_EQ(st_force_unlock(target.c_str(), static_cast<int64_t>(time(nullptr))), -1);
  EXPECT_EQ(st_forced_lock(target.c_str(), 0), 1);
  EXPECT_EQ(st_islocked(target.c_str()), 1);
  EXPECT_EQ(ospath_try_stat((target + ".m.lock").c_str()), 0);
  EXPECT_EQ(st_unlock(target.c_str()), 0);
}

TEST(Lock, NamesThatDontFitAndMissingParents) {
  std::string long_name(5000, 'a');
  EXPECT_EQ(st_lock(long_name.c_str()), -1);
  EXPECT_EQ(st_unlock(long_name.c_str()), -1);
  EXPECT_EQ(st_islocked(long_name.c_str()), -1);
  EXPECT_EQ(st_force_unlock(long_name.c_str(), 0), -2);
  EXPECT_EQ(st_lock("/nonexistent-dir-for-st-lock/x/y"), -1);
}

TEST(Lock, RefusedOnTmpfs) {
  struct statfs sf;
  if (statfs("/dev/shm", &sf) != 0 || st_lock_fs_kind(static_cast<int64_t>(sf.f_type)) != 0) {
    GTEST_SKIP() << "/dev/shm is missing or not on a file system that refuses locks";
  }
  char tmpl[] = "/dev/shm/st_lock_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string target = std::string(tmpl) + "/idx";
  EXPECT_EQ(st_lock(target.c_str()), -1);
  EXPECT_EQ(st_islocked(target.c_str()), 0);
  rmdir(tmpl);
}

TEST(OsFile, FactsAndTruncateOfAMapping) {
  ScratchDir dir;
  std::string f = dir.path() + "/f";
  EXPECT_EQ(ospath_try_stat(f.c_str()), 0);
  EXPECT_EQ(ospath_get_size(f.c_str()), -1);
  int fd = open(f.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  std::string data(3 * 4096 + 100, 'x');
  ASSERT_EQ(writeall(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  EXPECT_EQ(ospath_try_stat(f.c_str()), 1);
  EXPECT_EQ(ospath_get_size(f.c_str()), static_cast<int64_t>(data.size()));
  EXPECT_EQ(osfile_get_size(fd), static_cast<int64_t>(data.size()));
  EXPECT_GT(ospath_get_time(f.c_str(), 0), 1000000000000LL) << "milliseconds";
  EXPECT_GT(ospath_get_time(f.c_str(), 1), 1000000000000LL);

  void* m = mmap(nullptr, data.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ASSERT_NE(m, MAP_FAILED);
  ASSERT_EQ(osfilemap_truncate(fd, m, data.size(), 4096 + 10), 0);
  EXPECT_EQ(osfile_get_size(fd), 4096 + 10);
  EXPECT_EQ(static_cast<char*>(m)[4096 + 5], 'x') << "the page holding the new end stays mapped";
  munmap(m, 2 * 4096);

  // readall stops at end of file; writeall of nothing is fine.
  char buf[64];
  lseek(fd, 4096, SEEK_SET);
  EXPECT_EQ(readall(fd, buf, sizeof buf), 10);
  EXPECT_EQ(writeall(fd, buf, 0), 0);
  close(fd);
  EXPECT_EQ(readall(fd, buf, 1), -1);
}
