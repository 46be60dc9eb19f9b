#include "loaderinfo/FileUtils.h"

#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <utility>

namespace {

using FileId = std::pair<dev_t, ino_t>;

void walk(const Pathname& dir, std::set<FileId>& seen, std::vector<Pathname>& out) {
  out.push_back(dir);
  std::vector<Str> names;
  if (!dir.readDirectory(names)) return;  // sorted bytewise
  for (const Str& name : names) {
    if (name.empty() || name[0] == '.') continue;
    Pathname child = dir / name;
    struct stat st;
    if (!child.stat(st) || !S_ISDIR(st.st_mode)) continue;
    if (!seen.insert(FileId(st.st_dev, st.st_ino)).second) continue;  // a link loop
    walk(child, seen, out);
  }
}

}  // namespace

bool FileUtils::sortDirectories(const Pathname& root, std::vector<Pathname>& out) {
  struct stat st;
  if (!root.stat(st) || !S_ISDIR(st.st_mode) || !root.r_ok()) return false;
  std::set<FileId> seen;
  seen.insert(FileId(st.st_dev, st.st_ino));
  walk(root, seen, out);
  return true;
}

bool FileUtils::writeFileAtomically(const Pathname& path, const Str& text) {
  Pathname tmp(path + ".tmp");
  FileDescriptor fd = tmp.openCreateOrReplace();
  if (!fd.isValid()) return false;
  if (!fd.writeFully(text.data(), text.size())) {
    int e = errno;
    fd.close();
    tmp.unlink();
    errno = e;
    return false;
  }
  if (!fd.close() || !tmp.renameTo(path)) {
    int e = errno;
    tmp.unlink();
    errno = e;
    return false;
  }
  return true;
}

bool FileUtils::readSmallFile(const Pathname& path, size_t maxSize, Str& out, bool& tooLarge) {
  tooLarge = false;
  FileDescriptor fd = path.openReadOnly();
  if (!fd.isValid()) return false;
  struct stat st;
  bool ok = fd.stat(st) && S_ISREG(st.st_mode);
  if (ok && static_cast<unsigned long long>(st.st_size) > maxSize) {
    tooLarge = true;
    ok = false;
  }
  if (ok) {
    out.clear();
    ok = fd.readAll(out);
    if (ok && out.size() > maxSize) {  // it grew while we read it
      tooLarge = true;
      ok = false;
    }
  }
  int e = errno;
  fd.close();
  errno = e;
  return ok;
}
