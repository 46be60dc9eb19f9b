// Pathname: the file system operations. Each wraps the system call of its
// name and reports failure by its return value, with errno from that call.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "util/Pathname.h"
#include "util/ScopedFileDescriptor.h"
#include "util/Timeval.h"

bool Pathname::exists() const { return ::access(c_str(), F_OK) == 0; }
bool Pathname::r_ok() const { return ::access(c_str(), R_OK) == 0; }
bool Pathname::w_ok() const { return ::access(c_str(), W_OK) == 0; }
bool Pathname::rw_ok() const { return ::access(c_str(), R_OK | W_OK) == 0; }
bool Pathname::x_ok() const { return ::access(c_str(), X_OK) == 0; }

bool Pathname::mkdir(MkdirMode mode) const { return ::mkdir(c_str(), mode) == 0; }

bool Pathname::mkdir_p(MkdirMode mode) const {
  if (isDir()) return true;
  if (::mkdir(c_str(), mode) == 0 || errno == EEXIST) return true;
  if (errno != ENOENT) return false;
  Pathname parent = toParent();
  if (parent.empty() || parent == *this) return false;
  if (!parent.mkdir_p(mode)) return false;
  return ::mkdir(c_str(), mode) == 0 || errno == EEXIST;
}

DIR* Pathname::opendir() const { return ::opendir(c_str()); }

bool Pathname::readDirectory(std::vector<Str>& names) const {
  names.clear();
  DIR* d = opendir();
  if (!d) return false;
  errno = 0;
  while (struct dirent* e = ::readdir(d)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    names.emplace_back(n);
  }
  const int err = errno;
  ::closedir(d);
  std::sort(names.begin(), names.end());
  errno = err;
  return err == 0;
}

static FileDescriptor openWith(const Pathname& p, int flags, mode_t mode = 0) {
  int fd;
  do fd = ::open(p.c_str(), flags | O_CLOEXEC, mode);
  while (fd < 0 && errno == EINTR);
  return FileDescriptor(fd);
}

FileDescriptor Pathname::openReadOnly() const { return openWith(*this, O_RDONLY); }
FileDescriptor Pathname::openReadOnlySafer() const {
  FileDescriptor fd = openWith(*this, O_RDONLY);
  return FileDescriptor(FileDescriptor::moveAboveStdio(fd.get()));
}
FileDescriptor Pathname::openWriteOnlyExisting() const { return openWith(*this, O_WRONLY); }
FileDescriptor Pathname::openCreateOnly(CreateMode mode) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_EXCL, mode);
}
FileDescriptor Pathname::openCreateOrReplace(CreateMode mode) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_TRUNC, mode);
}
FileDescriptor Pathname::openCreateOrAppend(CreateMode mode) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_APPEND, mode);
}
FileDescriptor Pathname::openReadWriteOrCreate(CreateMode mode) const {
  return openWith(*this, O_RDWR | O_CREAT, mode);
}
FileStar Pathname::fopen(const char* mode) const { return FileStar(std::fopen(c_str(), mode)); }

bool Pathname::copyTo(const Pathname& dest) const {
  ScopedFileDescriptor in(openReadOnly());
  if (!in.isValid()) return false;
  struct stat st;
  if (!in.stat(st)) return false;
  if (!S_ISREG(st.st_mode)) {
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  ScopedFileDescriptor out(openWith(dest, O_WRONLY | O_CREAT | O_TRUNC, st.st_mode & 07777));
  if (!out.isValid()) return false;
  char buf[65536];
  for (;;) {
    const ssize_t n = in.read(buf, sizeof buf);
    if (n < 0) return false;
    if (n == 0) break;
    if (!out.writeFully(buf, static_cast<size_t>(n))) return false;
  }
  if (::fchmod(out.get(), st.st_mode & 07777) != 0) return false;
  return out.close();
}

bool Pathname::copyToRecursive(const Pathname& dest) const {
  struct stat st;
  if (!lstat(st)) return false;
  if (S_ISLNK(st.st_mode)) {
    Str target;
    return readlink(target) && dest.symlinkTo(target);
  }
  if (!S_ISDIR(st.st_mode)) return copyTo(dest);
  if (::mkdir(dest.c_str(), st.st_mode & 07777) != 0 && errno != EEXIST) return false;
  std::vector<Str> names;
  if (!readDirectory(names)) return false;
  bool ok = true;
  for (const Str& n : names) ok = (*this / n).copyToRecursive(dest / n) && ok;
  return ok;
}

bool Pathname::removeRecursive() const {
  struct stat st;
  if (!lstat(st)) return false;
  if (!S_ISDIR(st.st_mode)) return unlink();
  std::vector<Str> names;
  bool ok = readDirectory(names);
  for (const Str& n : names) ok = (*this / n).removeRecursive() && ok;
  return rmdir() && ok;
}

bool Pathname::remove() const { return std::remove(c_str()) == 0; }
bool Pathname::unlink() const { return ::unlink(c_str()) == 0; }
bool Pathname::rmdir() const { return ::rmdir(c_str()) == 0; }
bool Pathname::renameTo(const Pathname& dest) const { return ::rename(c_str(), dest.c_str()) == 0; }

bool Pathname::symlinkTo(const StrSegment& target) const {
  return ::symlink(Str(target).c_str(), c_str()) == 0;
}

bool Pathname::readlink(Str& target) const {
  size_t cap = 256;
  for (;;) {
    Str buf(cap, '\0');
    const ssize_t n = ::readlink(c_str(), &buf[0], cap);
    if (n < 0) return false;
    if (static_cast<size_t>(n) < cap) {
      buf.resize(static_cast<size_t>(n));
      target.swap(buf);
      return true;
    }
    cap *= 2;  // the link may have been truncated
  }
}

bool Pathname::truncate(off_t length) const { return ::truncate(c_str(), length) == 0; }
bool Pathname::touchExisting() const { return ::utimes(c_str(), nullptr) == 0; }

bool Pathname::stat(struct stat& st) const { return ::stat(c_str(), &st) == 0; }
bool Pathname::lstat(struct stat& st) const { return ::lstat(c_str(), &st) == 0; }

bool Pathname::getFileType(mode_t& type) const {
  struct stat st;
  if (!stat(st)) return false;
  type = st.st_mode & S_IFMT;
  return true;
}

uint64_t Pathname::treeSize() const {
  struct stat st;
  if (!lstat(st)) return 0;
  if (S_ISREG(st.st_mode)) return uint64_t(st.st_size);
  if (!S_ISDIR(st.st_mode)) return 0;
  std::vector<Str> names;
  if (!readDirectory(names)) return 0;
  uint64_t total = 0;
  for (const Str& n : names) total += (*this / n).treeSize();
  return total;
}

bool Pathname::getSize(uint64_t& size) const {
  struct stat st;
  if (!stat(st)) return false;
  size = static_cast<uint64_t>(st.st_size);
  return true;
}

bool Pathname::getMtime(Timeval& mtime) const {
  struct stat st;
  if (!stat(st)) return false;
  mtime.set(st.st_mtim.tv_sec, static_cast<int32_t>(st.st_mtim.tv_nsec / 1000));
  return true;
}

bool Pathname::isDir() const {
  struct stat st;
  return stat(st) && S_ISDIR(st.st_mode);
}
bool Pathname::isFile() const {
  struct stat st;
  return stat(st) && S_ISREG(st.st_mode);
}
bool Pathname::isFifo() const {
  struct stat st;
  return stat(st) && S_ISFIFO(st.st_mode);
}
bool Pathname::isSymlink() const {
  struct stat st;
  return lstat(st) && S_ISLNK(st.st_mode);
}

bool Pathname::filesystemBytesFree(uint64_t& bytes) const {
  struct statvfs vfs;
  if (::statvfs(c_str(), &vfs) != 0) return false;
  bytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  return true;
}
