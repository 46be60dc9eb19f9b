#include "searchthing/osfile.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

int64_t ospath_get_time(const char* path, int which) {
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  const struct timespec& ts = which == 0 ? st.st_ctim : st.st_mtim;
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t ospath_get_size(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

int64_t osfile_get_size(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

int ospath_try_stat(const char* path) {
  struct stat st;
  if (stat(path, &st) == 0) return 1;
  if (errno == ENOENT || errno == ENOTDIR) return 0;
  return -1;
}

int osfilemap_truncate(int fd, void* map, size_t map_size, size_t new_size) {
  assert(new_size <= map_size);
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t keep = (new_size + page - 1) / page * page;
  if (keep < map_size) {
    if (munmap(static_cast<char*>(map) + keep, map_size - keep) != 0) return -1;
  }
  if (ftruncate(fd, static_cast<off_t>(new_size)) != 0) return -1;
  return 0;
}
