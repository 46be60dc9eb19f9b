#include "libbundle/BundleArchive.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "libbundle/PropertiesMapConfig.h"

namespace {

struct ArchiveCloser {
  void operator()(archive* a) const { archive_read_free(a); }
};

const char* archiveError(archive* a) {
  const char* e = archive_error_string(a);
  return e ? e : "unknown error";
}

// Copies the current entry's data into `tmp`. False after printing the cause.
bool copyEntry(archive* a, const char* entryPath, FILE* tmp) {
  char buf[16384];
  for (;;) {
    la_ssize_t n = archive_read_data(a, buf, sizeof buf);
    if (n == 0) return true;
    if (n < 0) {
      fprintf(stderr, "Unable to read file in archive: %s error: %s\n", entryPath, archiveError(a));
      return false;
    }
    if (fwrite(buf, 1, (size_t)n, tmp) != (size_t)n) {
      fprintf(stderr, "Unable to read into temp file: errno: %s\n", strerror(errno));
      return false;
    }
  }
}

}  // namespace

bool BundleArchive::entryMatches(const char* entryPath, const Str& fileName) {
  size_t len = strlen(entryPath);
  if (len < fileName.size()) return false;
  const char* tail = entryPath + len - fileName.size();
  if (memcmp(tail, fileName.data(), fileName.size()) != 0) return false;
  return tail == entryPath || tail[-1] == '/';
}

bool BundleArchive::load(const Pathname& archivePath, const Str& fileName, SettingsMap& settings) {
  std::unique_ptr<archive, ArchiveCloser> a(archive_read_new());
  archive_read_support_filter_all(a.get());
  archive_read_support_format_all(a.get());
  if (archive_read_open_filename(a.get(), archivePath.c_str(), 10240) != ARCHIVE_OK) {
    fprintf(stderr, "Unable to read archive: %s error: %s\n", archivePath.c_str(), archiveError(a.get()));
    return false;
  }
  bool loaded = false;
  for (bool first = true;; first = false) {
    archive_entry* entry = nullptr;
    int r = archive_read_next_header(a.get(), &entry);
    if (r == ARCHIVE_EOF) break;
    if (r != ARCHIVE_OK && r != ARCHIVE_WARN) {
      // Formats are recognised at the first header: failing there means the
      // file is no archive at all.
      fprintf(stderr, first ? "Unable to read archive: %s error: %s\n" : "Unable to read file in archive: %s error: %s\n",
              archivePath.c_str(), archiveError(a.get()));
      break;
    }
    const char* path = archive_entry_pathname(entry);
    if (path == nullptr || archive_entry_filetype(entry) != AE_IFREG || !entryMatches(path, fileName)) {
      continue;
    }
    FILE* tmp = tmpfile();
    if (tmp == nullptr) {
      fprintf(stderr, "Unable to create temp file: errno: %d\n", errno);
      break;
    }
    bool ok = copyEntry(a.get(), path, tmp);
    if (ok) {
      rewind(tmp);
      PropertiesMapConfig::loadSettings(settings, tmp);
      loaded = true;
    }
    fclose(tmp);
    if (!ok) break;
  }
  return loaded;
}
