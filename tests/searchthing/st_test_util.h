// Scratch directories and environment guards shared by the engine tests.
#ifndef VELMOR_TESTS_SEARCHTHING_ST_TEST_UTIL_H
#define VELMOR_TESTS_SEARCHTHING_ST_TEST_UTIL_H

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "searchthing/lock.h"

// A fresh directory under /tmp, removed with everything in it (one level of
// subdirectories) when the object dies.
class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/st_test_XXXXXX";
    char* d = mkdtemp(tmpl);
    path_ = d ? d : "";
  }
  ~ScratchDir() { removeTree(path_); }
  const std::string& path() const { return path_; }
  // A subdirectory, created: index directories live below the scratch root
  // so that their ".lock" siblings are cleaned up too.
  std::string sub(const std::string& name) const {
    std::string p = path_ + "/" + name;
    mkdir(p.c_str(), 0755);
    return p;
  }
  static std::vector<std::string> list(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
      while (struct dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
      }
      closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  static size_t countSuffix(const std::string& dir, const std::string& suffix) {
    size_t n = 0;
    for (const std::string& name : list(dir)) {
      if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) ++n;
    }
    return n;
  }

 private:
  static void removeTree(const std::string& p) {
    if (p.empty()) return;
    for (const std::string& n : list(p)) {
      std::string child = p + "/" + n;
      struct stat st;
      if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        removeTree(child);
      } else {
        unlink(child.c_str());
      }
    }
    rmdir(p.c_str());
  }
  std::string path_;
};

// Sets or unsets an environment variable for the life of the object and
// restores the previous state after.
class EnvGuard {
 public:
  EnvGuard(const char* name, const char* value) : name_(name) {
    const char* old = getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~EnvGuard() {
    if (had_) {
      setenv(name_.c_str(), old_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }

 private:
  std::string name_, old_;
  bool had_ = false;
};

// True when index directories under /tmp can be locked (its file system is
// one the lock module allows).
inline bool tmpAllowsLocks() {
  struct statfs sf;
  return statfs("/tmp", &sf) == 0 && st_lock_fs_kind(static_cast<int64_t>(sf.f_type)) != 0;
}

#define SKIP_UNLESS_LOCKABLE()                                                                          \
  do {                                                                                                  \
    if (!tmpAllowsLocks()) GTEST_SKIP() << "/tmp is on a file system on which engine locks are refused"; \
  } while (0)

#endif
