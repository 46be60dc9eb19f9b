#include "pipeline/indexer/RecordFileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("RecordFileManager");

const char* const RecordFileManager::kVersionKey = "_record-file-version";

namespace {

const size_t kMaxPiece = 1000;
const char* const kVersionValue = "1";

// Reads up to n bytes in pieces of at most 1000; returns the bytes read
// (fewer only at end of file or on an error).
size_t readLooped(int fd, char* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    size_t want = n - got < kMaxPiece ? n - got : kMaxPiece;
    ssize_t r = ::read(fd, buf + got, want);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got += size_t(r);
  }
  return got;
}

bool readLength(int fd, uint32_t& out) { return readLooped(fd, reinterpret_cast<char*>(&out), 4) == 4; }

bool readString(int fd, uint32_t len, Str& out) {
  out.resize(len);
  return readLooped(fd, out.data(), len) == len;
}

void appendRecord(Str& out, const Str& key, const Str& value) {
  uint32_t k = uint32_t(key.size()), v = uint32_t(value.size());
  out.append(reinterpret_cast<const char*>(&k), 4);
  out += key;
  out.append(reinterpret_cast<const char*>(&v), 4);
  out += value;
}

}  // namespace

bool RecordFileManager::load() {
  ScopedLock l(_mutex);
  _map.clear();
  int fd = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    gLogger.error("Unable to open %s: %m", _path.c_str());
    return false;
  }
  struct stat st;
  uint64_t left = (::fstat(fd, &st) == 0) ? uint64_t(st.st_size) : 0;
  bool sawVersion = false;
  Str key, value;
  for (;;) {
    uint32_t len;
    size_t got = readLooped(fd, reinterpret_cast<char*>(&len), 4);
    if (got == 0) break;  // clean end
    if (got != 4) {
      gLogger.warn("Short read for key length, record file may be corrupt.");
      break;
    }
    left -= 4;
    // A length past the end of the file is a short read, found without
    // allocating for it.
    if (len > left || !readString(fd, len, key)) {
      gLogger.warn("Short read, record file may be corrupt.");
      break;
    }
    left -= len;
    if (!readLength(fd, len)) {
      gLogger.warn("Short read for value length, record file may be corrupt.");
      break;
    }
    left -= 4;
    if (len > left || !readString(fd, len, value)) {
      gLogger.warn("Short read, record file may be corrupt.");
      break;
    }
    left -= len;
    if (!sawVersion) {
      if (key != kVersionKey) break;
      sawVersion = true;
      continue;
    }
    _map[key] = value;
  }
  ::close(fd);
  if (!sawVersion) {
    _map.clear();
    throw DbException("No version string found in hash db.  File has been modified or was never migrated.");
  }
  return true;
}

bool RecordFileManager::saveToFile() {
  ScopedLock l(_mutex);
  Str out;
  appendRecord(out, kVersionKey, kVersionValue);
  for (const auto& kv : _map) appendRecord(out, kv.first, kv.second);
  Pathname temp(_path + ".temp");
  FILE* f = std::fopen(temp.c_str(), "wb");
  if (!f) {
    gLogger.error("Unable to open %s: %m", temp.c_str());
    return false;
  }
  bool ok = std::fwrite(out.data(), 1, out.size(), f) == out.size();
  ok = (std::fclose(f) == 0) && ok;
  if (!ok || !temp.renameTo(_path)) {
    gLogger.error("Unable to write %s: %m", _path.c_str());
    temp.unlink();
    return false;
  }
  return true;
}

bool RecordFileManager::put(const Str& key, const Str& value) {
  if (key == kVersionKey) {
    gLogger.error("Someone attempted to add internal version key to map - refusing.");
    return false;
  }
  ScopedLock l(_mutex);
  _map[key] = value;
  return true;
}

bool RecordFileManager::get(const Str& key, Str& out) {
  ScopedLock l(_mutex);
  auto it = _map.find(key);
  if (it == _map.end()) return false;
  out = it->second;
  return true;
}

bool RecordFileManager::remove(const Str& key) {
  ScopedLock l(_mutex);
  return _map.erase(key) > 0;
}

std::vector<std::pair<Str, Str>> RecordFileManager::enumerate(const Str& prefix) {
  ScopedLock l(_mutex);
  std::vector<std::pair<Str, Str>> out;
  for (auto it = _map.lower_bound(prefix); it != _map.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
    out.emplace_back(it->first, it->second);
  return out;
}

size_t RecordFileManager::size() {
  ScopedLock l(_mutex);
  return _map.size();
}
