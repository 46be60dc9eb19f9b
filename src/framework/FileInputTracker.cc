#include "framework/FileInputTracker.h"

#include <unistd.h>

#include <atomic>

#include <fcntl.h>
#include <openssl/evp.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"
#include "util/ScopedFileDescriptor.h"

namespace {

Logger gLogger("FileInputTracker");

const char kTrackerSource[] = "source::fileTracker";
const char kTrackerSourceType[] = "sourcetype::fileTrackerCrcLog";
const char kTrackerHost[] = "host::fthost";
const char kTrackerIndex[] = "_thefileseeks";
const char kSourcePrefix[] = "source::";
const char kSaltSourceToken[] = "<SOURCE>";
const char kCheckMethodKey[] = "CHECK_METHOD";
// The tracker's own queries run as the process itself (no user), which
// the access rules of the query engine leave alone: the index of file
// positions is not one that a role could be given.
const char kQueryUser[] = "";
// Each query has an id of its own: the query engine keeps results by id, and
// a repeated id would be answered from that cache with another file's
// records.
Str nextQueryId() {
  static std::atomic<unsigned long> seq{0};
  return Str::fromFormat("fileTracker_%ld_%lu", long(getpid()), seq.fetch_add(1));
}

constexpr size_t kBlock = 256;             // reads and the head hash go by this many bytes
constexpr size_t kMaxCacheEntries = 100000;
constexpr long kInitialWindow = 60;
constexpr long kMaxWindow = 3600;
constexpr size_t kKeyBuffer = 1024;        // room for the key of an index query

// A file that begins with this line is a call-record CSV log whose first
// line changes; it is skipped before hashing.
const char kCsvHeader[] = "\"cdrRecordType\",\"globalCallID_callManagerId\",\"globalCallID_callId\",";

struct RuleName {
  const char* word;
  int rule;
};
const RuleName kRuleNames[] = {
    {"endpoint_md5", FileData::kRuleEndpointMd5},
    {"entire_md5", FileData::kRuleEntireMd5},
    {"modtime", FileData::kRuleModTime},
};

// MD5 fed piecewise, folded to 64 bits at the end.
class Md5 {
 public:
  Md5() : _ctx(EVP_MD_CTX_new()) { _ok = _ctx && EVP_DigestInit_ex(_ctx, EVP_md5(), nullptr) == 1; }
  ~Md5() { EVP_MD_CTX_free(_ctx); }
  Md5(const Md5&) = delete;
  Md5& operator=(const Md5&) = delete;

  void update(const void* p, size_t n) {
    if (_ok && n) _ok = EVP_DigestUpdate(_ctx, p, n) == 1;
  }
  // False when OpenSSL failed anywhere.
  bool finish(uint64_t& out) {
    unsigned char d[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!_ok || EVP_DigestFinal_ex(_ctx, d, &len) != 1 || len != 16) return false;
    uint64_t hi = 0, lo = 0;
    for (int i = 0; i < 8; ++i) hi = (hi << 8) | d[i];
    for (int i = 8; i < 16; ++i) lo = (lo << 8) | d[i];
    out = hi ^ lo;
    return true;
  }

 private:
  EVP_MD_CTX* _ctx;
  bool _ok;
};

// Reads [from, to) of fd block by block, handing each to visit(block, n,
// offset), which returns false to stop early. `read` counts the bytes read.
// Returns 1 when the range was read whole, 0 when visit stopped, -1 on a
// read error (logged) and -2 at an early end of file.
template <typename Visit>
int readBlocks(const FileDescriptor& fd, uint64_t from, uint64_t to, uint64_t& read, Visit visit) {
  char buf[kBlock];
  for (uint64_t pos = from; pos < to;) {
    ssize_t n = fd.pread(buf, size_t(std::min<uint64_t>(kBlock, to - pos)), off_t(pos));
    if (n < 0) {
      gLogger.error("Error reading CRC: %m");
      return -1;
    }
    if (n == 0) return -2;
    read += uint64_t(n);
    if (!visit(buf, size_t(n), pos)) return 0;
    pos += uint64_t(n);
  }
  return 1;
}

// Feeds [from, to) of fd to md5. False (logged) on a read error or an early
// end of file.
bool hashRange(const FileDescriptor& fd, uint64_t from, uint64_t to, Md5& md5, uint64_t& read) {
  uint64_t before = read;
  int rc = readBlocks(fd, from, to, read, [&](const char* b, size_t n, uint64_t) {
    md5.update(b, n);
    return true;
  });
  if (rc == -2)
    gLogger.warn("Hit EOF while computing CRC: %llu/%llu.", (unsigned long long)(read - before),
                 (unsigned long long)(to - from));
  return rc == 1;
}

// The offset just past the line that starts at `from`; false when the file
// ends first or cannot be read.
bool skipLine(const FileDescriptor& fd, uint64_t from, uint64_t size, uint64_t& next, uint64_t& read) {
  int rc = readBlocks(fd, from, size, read, [&](const char* b, size_t n, uint64_t at) {
    const void* nl = memchr(b, '\n', n);
    if (nl) next = at + uint64_t(static_cast<const char*>(nl) - b) + 1;
    return nl == nullptr;
  });
  return rc == 0;
}

// One byte at `at`, or -1 when it cannot be read.
int byteAt(const FileDescriptor& fd, uint64_t at) {
  unsigned char c;
  return fd.pread(&c, 1, off_t(at)) == 1 ? c : -1;
}

// Whether a first block that begins with '#' is the header of an exchange
// log: one of its comment lines goes on, after the '#', with " Log File" or
// " Version ".
bool looksLikeExchangeLog(const char* p, size_t n) {
  if (n == 0 || p[0] != '#') return false;
  std::string_view block(p, n);
  size_t at = 0;
  while (at < n) {
    if (block[at] == '#') {
      std::string_view rest = block.substr(at + 1);
      if (rest.starts_with(" Log File") || rest.starts_with(" Version ")) return true;
    }
    size_t nl = block.find('\n', at);
    if (nl == std::string_view::npos) break;
    at = nl + 1;
  }
  return false;
}

enum class HeadStart { Ok, Failed };

// Where the hashed head of the file begins: 0, or past the header of an
// exchange log or of a call-record CSV log. `read` counts the bytes read.
HeadStart headStart(const FileDescriptor& fd, uint64_t size, const Str& path, uint64_t& start,
                    uint64_t& read) {
  start = 0;
  char first[kBlock];
  size_t want = size_t(std::min<uint64_t>(kBlock, size));
  ssize_t n = fd.pread(first, want, 0);
  if (n < 0) {
    gLogger.error("Error reading CRC: %m");
    return HeadStart::Failed;
  }
  read += uint64_t(n);
  std::string_view block(first, size_t(n));
  if (looksLikeExchangeLog(first, size_t(n))) {
    gLogger.info("File seems to be an exchange log; trying to skip header");
    uint64_t pos = 0;
    for (;;) {
      int c = pos < size ? byteAt(fd, pos) : -1;
      if (c != '#') break;
      uint64_t next = 0;
      if (!skipLine(fd, pos, size, next, read)) {
        gLogger.info("File only has a header so far: %s", path.c_str());
        return HeadStart::Failed;
      }
      pos = next;
    }
    if (pos >= size) {
      gLogger.info("File only has a header so far: %s", path.c_str());
      return HeadStart::Failed;
    }
    if (size - pos < kBlock) {
      gLogger.info("Not enough data (in %llu bytes) to compute exchange CRC", (unsigned long long)(size - pos));
      return HeadStart::Failed;
    }
    start = pos;
  } else if (block.starts_with(kCsvHeader)) {
    gLogger.info("File seems to be a Cisco CSV log; trying to skip header");
    uint64_t next = 0;
    bool haveLine = skipLine(fd, 0, size, next, read);
    uint64_t left = haveLine ? size - next : 0;
    if (left < kBlock) {
      gLogger.info("Not enough data (in %llu bytes) to compute Cisco CSV CRC", (unsigned long long)left);
      return HeadStart::Failed;
    }
    start = next;
  }
  return HeadStart::Ok;
}

// The head hash: the salt, then 256 bytes from the head's start (all bytes
// to the end under entire_md5; what there is for a shorter file).
bool computeInitCRC(const FileDescriptor& fd, FileData& data, const Str& salt) {
  uint64_t read = 0, start = 0, hashed = 0;
  Str path = data.path();
  bool ok = headStart(fd, data.fileSize, path, start, read) == HeadStart::Ok;
  if (ok) {
    Md5 md5;
    md5.update(salt.data(), salt.size());
    uint64_t end = data.trackingRule == FileData::kRuleEntireMd5 ? data.fileSize
                                                                  : std::min<uint64_t>(data.fileSize, start + kBlock);
    ok = hashRange(fd, start, end, md5, hashed) && md5.finish(data.initCRC);
  }
  gLogger.debug("Ended up reading %llu bytes, success=%c", (unsigned long long)(read + hashed), ok ? 'Y' : 'N');
  if (!ok) data.initCRC = 0;
  return ok;
}

// The seek hash: bytes 0..seekPtr under entire_md5, otherwise the 256 bytes
// before seekPtr (all of them when there are fewer). 0 at offset 0.
bool computeSeekCRC(const FileDescriptor& fd, const FileData& data, uint64_t& out) {
  Str path = data.path();
  gLogger.debug("Computing CRC for seekPtr=%llx filename=%s", (unsigned long long)data.seekPtr, path.c_str());
  out = 0;
  if (data.seekPtr == 0) return true;
  uint64_t from = 0;
  if (data.trackingRule != FileData::kRuleEntireMd5) {
    if (data.seekPtr < kBlock)
      gLogger.debug("Too short for CRC: seekPtr=%llx filename=%s", (unsigned long long)data.seekPtr, path.c_str());
    else
      from = data.seekPtr - kBlock;
  }
  char probe;
  if (fd.pread(&probe, 1, off_t(from)) < 0) {
    gLogger.error("Unable to seek file: %s", path.c_str());
    return false;
  }
  Md5 md5;
  uint64_t read = 0;
  return hashRange(fd, from, data.seekPtr, md5, read) && md5.finish(out);
}

// The salt with every "<SOURCE>" replaced by the path.
Str saltText(const FileData& data) {
  Str salt = data.crcSalt;
  Str path = data.path();
  size_t at = 0;
  while ((at = salt.find(kSaltSourceToken, at)) != Str::npos) {
    salt.replace(at, sizeof(kSaltSourceToken) - 1, path);
    at += path.size();
  }
  return salt;
}

// The number after the first `token`; false when absent or without digits.
bool numberAfter(const Str& text, const char* token, int base, unsigned long long& out) {
  size_t at = text.find(token);
  if (at == Str::npos) return false;
  const char* p = text.c_str() + at + strlen(token);
  char* end = nullptr;
  errno = 0;
  out = strtoull(p, &end, base);
  return end != p && errno == 0;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The path of "filename::P source::P" at the end of a record; anything after
// the pair is passed over. Falls back to the text after the first " source::".
bool recordPath(const Str& text, Str& path) {
  static const char kFile[] = "filename::";
  static const char kSrc[] = " source::";
  size_t f = text.find(kFile);
  if (f != Str::npos) {
    std::string_view tail(text.data() + f + sizeof(kFile) - 1, text.size() - f - (sizeof(kFile) - 1));
    for (size_t i = tail.find(kSrc); i != std::string_view::npos; i = tail.find(kSrc, i + 1)) {
      std::string_view p = tail.substr(0, i), after = tail.substr(i + sizeof(kSrc) - 1);
      if (after.starts_with(p) && (after.size() == p.size() || isBlank(after[p.size()]))) {
        path.assign(p);
        return true;
      }
    }
  }
  size_t s = text.find(kSourcePrefix);
  if (s == Str::npos) return false;
  size_t b = s + sizeof(kSourcePrefix) - 1, e = text.size();
  while (e > b && isBlank(text[e - 1])) --e;
  path.assign(text, b, e - b);
  return true;
}

// The process's tracker. It is never destroyed at exit: by then the log
// facility may be gone, and its destructor logs.
FileInputTracker*& singleton() {
  static FileInputTracker* tracker = nullptr;
  return tracker;
}
Mutex& singletonMutex() {
  static Mutex m;
  return m;
}

}  // namespace

// --- life -----------------------------------------------------------------------------------

FileInputTracker::FileInputTracker() { gLogger.info("Default File Tracker Created"); }

FileInputTracker::~FileInputTracker() { gLogger.info("FileInputTracker destroyed"); }

FileInputTracker& FileInputTracker::instance() {
  ScopedLock lock(singletonMutex());
  FileInputTracker*& t = singleton();
  if (!t) t = new FileInputTracker();
  return *t;
}

FileInputTracker* FileInputTracker::existing() {
  ScopedLock lock(singletonMutex());
  return singleton();
}

void FileInputTracker::resetForTest() {
  ScopedLock lock(singletonMutex());
  FileInputTracker*& t = singleton();
  delete t;
  t = new FileInputTracker();
}

const Str& FileInputTracker::crcSaltKey() {
  static const Str key("crcSalt");
  return key;
}

void FileInputTracker::setQueryRunner(IQueryRunner* runner) {
  ScopedLock lock(_mutex);
  _runner = runner;
}

void FileInputTracker::setRecordSink(std::function<bool(std::shared_ptr<PipelineData>)> sink) {
  ScopedLock lock(_mutex);
  _sink = std::move(sink);
}

void FileInputTracker::setClockForTest(std::function<int64_t()> clock) {
  ScopedLock lock(_mutex);
  _clock = std::move(clock);
}

int64_t FileInputTracker::now() const { return _clock ? _clock() : int64_t(time(nullptr)); }

long FileInputTracker::cacheWindow() const {
  ScopedLock lock(_mutex);
  return _window;
}

size_t FileInputTracker::cacheSize() const {
  ScopedLock lock(_mutex);
  return _byCRC.size() + _byPath.size();
}

// --- tracking rule -----------------------------------------------------------------------------

void FileInputTracker::setTrackingRules(FileData& data) {
  ScopedLock lock(_mutex);
  Locked_setTrackingRules(data);
}

void FileInputTracker::Locked_setTrackingRules(FileData& data) {
  int rule = FileData::kRuleEndpointMd5;
  try {
    PropertiesMap stanza;
    PropertyPages::propsInstance().fillLayers(stanza, data.source, false);
    const char* value = PropertyPages::layeredFind(kCheckMethodKey, stanza);
    if (value && *value) {
      bool known = false;
      for (const RuleName& r : kRuleNames) {
        if (strncasecmp(value, r.word, strlen(r.word)) == 0) {
          rule = r.rule;
          known = true;
          break;
        }
      }
      if (!known)
        gLogger.warn("Could not recognize value '%s' for parameter '%s' - using default '%s'.", value,
                     kCheckMethodKey, kRuleNames[0].word);
    }
  } catch (const std::exception& e) {
    gLogger.warn(e);
  }
  data.trackingRule = rule;
  gLogger.debug("Tracking rules set to '%d' for file '%s'.", rule, data.path().c_str());
}

// --- checking a file ---------------------------------------------------------------------------

int FileInputTracker::checkFile(FileData& data) {
  Str path = data.path();
  ScopedFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.isValid()) {
    gLogger.warn("Bad file handle: %s", path.c_str());
    data.seekCRC = data.seekPtr = data.initCRC = 0;
    return -1;
  }
  return checkFile(fd, data);
}

int FileInputTracker::checkFile(const FileDescriptor& fd, FileData& data) {
  ScopedLock lock(_mutex);
  Locked_checkCache();
  Str path = data.path();
  Str salt = saltText(data);
  gLogger.debug("Checking file: %s", path.c_str());

  data.seekCRC = data.seekPtr = data.initCRC = 0;
  if (!fd.isValid()) {
    gLogger.warn("Bad file handle: %s", path.c_str());
    return -1;
  }
  struct stat st;
  if (!fd.stat(st)) {
    gLogger.warn("Unable to get the size of file: %s", path.c_str());
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    gLogger.warn("Not a regular file: %s", path.c_str());
    return -1;
  }
  data.fileSize = uint64_t(st.st_size);
  data.modTime = int64_t(st.st_mtime);
  if (data.trackingRule == FileData::kRuleUnset) Locked_setTrackingRules(data);
  if (data.fileSize == 0) {
    gLogger.debug("File size is zero: %s", path.c_str());
    return 0;
  }

  FileData stored;
  if (data.trackingRule == FileData::kRuleModTime) {
    // The path and the time decide: a changed time means the whole file again.
    bool fromIndex = false;
    auto it = _byPath.find(path);
    if (it != _byPath.end()) {
      stored = it->second.data;
    } else if (Locked_queryIndex(data, stored)) {
      fromIndex = true;
      Locked_cacheStore(stored);
    } else {
      return 0;  // never seen: from the start
    }
    if (stored.storedModTime == data.modTime) {
      takePosition(data, stored);
      return 0;
    }
    if (fromIndex)
      gLogger.info("In index, time has changed '%s'.", path.c_str());
    else
      gLogger.info("Mod time has changed on file %s from %lu to %lu, resetting seekptr.", path.c_str(),
                   (unsigned long)stored.storedModTime, (unsigned long)data.modTime);
    data.seekPtr = data.seekCRC = 0;
    auto record = Locked_updateSeek(data);
    if (record && _sink) {
      auto sink = _sink;
      ScopedUnlock unlock(_mutex);
      sink(record);
    }
    return 0;
  }

  if (!computeInitCRC(fd, data, salt)) {
    gLogger.warn("Couldn't create full CRC for file: %s", path.c_str());
    return -1;
  }
  auto it = _byCRC.find(data.initCRC);
  if (it != _byCRC.end()) {
    stored = it->second.data;
  } else if (Locked_queryIndex(data, stored) || Locked_queryShortHead(fd, data, salt, stored)) {
    Locked_cacheStore(stored);
  } else {
    return 0;  // a new file: from the start
  }

  takePosition(data, stored);
  Str storedPath = stored.path();
  if (stored.storedModTime == data.modTime) {
    gLogger.debug("Same mod time: %lx, using cache.", (unsigned long)data.modTime);
  } else if (storedPath != path && stored.storedModTime > data.modTime) {
    // An older copy of a file whose newer version was read (under another name).
    gLogger.info("We've read a newer version (%s) of this file (%s). Skipping.", storedPath.c_str(), path.c_str());
    data.seekPtr = data.fileSize;
    return 0;
  }

  if (data.seekPtr > data.fileSize) {
    gLogger.info("Stored seekPtr longer than file: %s.", path.c_str());
    if (storedPath == path)
      gLogger.info("Last time we read this file path it was longer. Resetting seekPtr");
    else
      gLogger.info("Read a similar file to this that was longer. Perhaps you have two files that have the same content.");
    data.seekPtr = data.seekCRC = 0;
    data.storedModTime = 0;
    return 0;
  }

  // The time alone is not trusted: the bytes before the resume point must
  // still be those that were read.
  uint64_t current = 0;
  if (!computeSeekCRC(fd, data, current)) {
    gLogger.warn("Couldn't get CRC for file: %s", path.c_str());
    data.seekPtr = data.seekCRC = 0;
    return 0;
  }
  if (current != data.seekCRC) {
    gLogger.info("File appears to have changed; old CRC: %llx; new CRC: %llx: %s", (unsigned long long)data.seekCRC,
                 (unsigned long long)current, path.c_str());
    data.seekPtr = data.seekCRC = 0;
  }
  return 0;
}

void FileInputTracker::takePosition(FileData& data, const FileData& stored) {
  data.seekPtr = stored.seekPtr;
  data.seekCRC = stored.seekCRC;
  data.storedModTime = stored.storedModTime;
}

// --- seek hash -----------------------------------------------------------------------------------

void FileInputTracker::updateSeekCRC(const FileDescriptor& fd, FileData& data) {
  uint64_t crc = 0;
  if (!computeSeekCRC(fd, data, crc)) {
    gLogger.warn("Couldn't get CRC for file: %s", data.path().c_str());
    crc = 0;
  }
  data.seekCRC = crc;
}

void FileInputTracker::updateSeekCRC(FileData& data) {
  Str path = data.path();
  ScopedFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.isValid()) {
    gLogger.warn("Couldn't get CRC for file: %s", path.c_str());
    data.seekCRC = 0;
    return;
  }
  updateSeekCRC(fd, data);
}

uint64_t FileInputTracker::foldedMd5(const Str& bytes) { return foldedMd5(bytes.data(), bytes.size()); }

// --- records ---------------------------------------------------------------------------------

Str FileInputTracker::recordText(const FileData& data) {
  Str initKey;
  initKey.format("initcrc::%llx", (unsigned long long)data.initCRC);
  Str text;
  text.format("%lx %s seekcrc::%llx seekptr::%llx %s%lu filename::%s", (unsigned long)data.initCRC, initKey.c_str(),
              (unsigned long long)data.seekCRC, (unsigned long long)data.seekPtr, "modtime::",
              (unsigned long)data.modTime, data.path().c_str());
  text += ' ';
  text += data.source;
  return text;
}

std::shared_ptr<PipelineData> FileInputTracker::makeRecord(const FileData& data) const {
  auto record = std::make_shared<PipelineData>();
  record->put(PipelineData::rawKey, recordText(data));
  record->put(PipelineData::sourceKey, kTrackerSource);
  record->put(PipelineData::sourceTypeKey, kTrackerSourceType);
  record->put(PipelineData::hostKey, kTrackerHost);
  record->put(PipelineData::indexKey, kTrackerIndex);
  record->setTimeKey((unsigned long)now());
  return record;
}

void FileInputTracker::Locked_cacheStore(const FileData& data) {
  Entry e{data, now()};
  if (data.trackingRule == FileData::kRuleModTime)
    _byPath[data.path()] = std::move(e);
  else
    _byCRC[data.initCRC] = std::move(e);
}

std::shared_ptr<PipelineData> FileInputTracker::Locked_updateSeek(const FileData& data) {
  if (data.trackingRule != FileData::kRuleModTime && data.initCRC == 0) {
    gLogger.debug("No CRC for file, not recording its position: %s", data.path().c_str());
    return nullptr;
  }
  FileData stored = data;
  stored.storedModTime = data.modTime;  // what a later check compares with
  Locked_cacheStore(stored);
  return makeRecord(stored);
}

std::shared_ptr<PipelineData> FileInputTracker::seekRecord(FileData& data) {
  ScopedLock lock(_mutex);
  auto record = Locked_updateSeek(data);
  if (record) data.storedModTime = data.modTime;
  return record;
}

void FileInputTracker::updateSeek(FileData& data) {
  std::shared_ptr<PipelineData> record;
  std::function<bool(std::shared_ptr<PipelineData>)> sink;
  {
    ScopedLock lock(_mutex);
    record = Locked_updateSeek(data);
    if (record) data.storedModTime = data.modTime;
    sink = _sink;
  }
  if (!record) return;
  if (!sink) {
    gLogger.debug("No record sink: position of %s kept in memory only", data.path().c_str());
    return;
  }
  if (!sink(record)) gLogger.warn("Could not send the position of %s", data.path().c_str());
}

// --- reading records back ------------------------------------------------------------------------

bool FileInputTracker::parseRecord(const Str& text, FileData& stored) {
  stored = FileData();
  size_t b = 0;
  while (b < text.size() && isBlank(text[b])) ++b;
  if (b == text.size() || !isxdigit((unsigned char)text[b])) return false;
  unsigned long long init = 0, seekCrc = 0, seekPtr = 0, mod = 0;
  char* end = nullptr;
  errno = 0;
  init = strtoull(text.c_str() + b, &end, 16);
  if (errno != 0) return false;
  if (!numberAfter(text, " seekcrc::", 16, seekCrc) || !numberAfter(text, " seekptr::", 16, seekPtr)) return false;
  numberAfter(text, " modtime::", 10, mod);
  Str path;
  if (!recordPath(text, path)) return false;
  stored.initCRC = init;
  stored.seekCRC = seekCrc;
  stored.seekPtr = seekPtr;
  stored.storedModTime = int64_t(mod);
  stored.modTime = int64_t(mod);
  stored.source = kSourcePrefix + path;
  return true;
}

bool FileInputTracker::sameFile(const FileData& data, const FileData& stored) {
  if (data.trackingRule == FileData::kRuleModTime) return stored.path() == data.path();
  return stored.initCRC == data.initCRC;
}

bool FileInputTracker::fileSeenBefore(const Str& text, FileData& data) {
  FileData stored;
  if (!parseRecord(text, stored) || !sameFile(data, stored)) {
    data.seekPtr = 0;
    return false;
  }
  takePosition(data, stored);
  return true;
}

bool FileInputTracker::queryIndex(FileData& data) {
  ScopedLock lock(_mutex);
  FileData stored;
  if (!Locked_queryIndex(data, stored)) return false;
  takePosition(data, stored);
  return true;
}

bool FileInputTracker::Locked_queryIndex(const FileData& data, FileData& stored) {
  if (!_runner) {
    gLogger.warn("There is no query runner registered");
    return false;
  }
  char key[kKeyBuffer];
  int n = data.trackingRule == FileData::kRuleModTime
              ? snprintf(key, sizeof(key), "filename::%s", data.path().c_str())
              : snprintf(key, sizeof(key), "initcrc::%llx", (unsigned long long)data.initCRC);
  if (n < 0) return false;
  if (size_t(n) >= sizeof(key) - 1)
    gLogger.warn("Size of key in query is equal to size allocated for key.  Truncation may have occurred.  Key is: \"%s\".",
                 key);
  Str query;
  // Several of the newest records come back: a record stored just before a
  // crash may name data that never reached the disk, and the verifier then
  // sends us to the one stored before it.
  query.format("SEARCH %s index::%s GET events::0-%d OUTPUT velmorui::2.1", key, kTrackerIndex,
               _verifier ? kVerifiedRecords - 1 : 0);
  std::unordered_map<Str, std::vector<std::shared_ptr<Str>>> results;
  try {
    _runner->runQuery(query.c_str(), kQueryUser, nextQueryId().c_str(), results);
  } catch (const std::exception& e) {
    gLogger.warn(e);
    return false;
  }
  auto found = results.find(Str("events"));
  size_t count = found == results.end() ? 0 : found->second.size();
  gLogger.debug("Got %lu results", (unsigned long)count);
  // The newest record comes first, and it is the one that counts, unless
  // the verifier finds that the data it stands for is not in the index.
  for (size_t i = 0; i < count; ++i) {
    if (!found->second[i]) continue;
    const Str& text = *found->second[i];
    gLogger.debug("Seen this crc: %s", text.c_str());
    if (!parseRecord(text, stored) || !sameFile(data, stored)) return false;
    if (_verifier && !_verifier(text)) {
      gLogger.info("Stored position %llx of %s names data that is not in the index; taking the one before it",
                   (unsigned long long)stored.seekPtr, data.path().c_str());
      continue;
    }
    stored.trackingRule = data.trackingRule;
    stored.crcSalt = data.crcSalt;
    return true;
  }
  return false;
}

bool FileInputTracker::readPosition(const PipelineData& event, FileData& data) {
  const Str& seek = event.getStr(PipelineData::seekAddrKey);
  const Str& init = event.getStr(kInitCRCKey);
  if (seek.empty() || init.empty()) return false;
  char* end = nullptr;
  data.seekPtr = strtoull(seek.c_str(), &end, 10);
  if (*end) return false;
  data.initCRC = strtoull(init.c_str(), &end, 16);
  if (*end || data.initCRC == 0) return false;
  data.seekCRC = strtoull(event.getStr(kSeekCRCKey).c_str(), &end, 16);
  if (*end) return false;
  data.modTime = event.getStr(kModTimeKey).toLong(0);
  return true;
}

bool FileInputTracker::notePosition(const PipelineData& event) {
  const Str& source = event.getStr(PipelineData::sourceKey);
  FileData d;
  if (source.empty() || !readPosition(event, d)) return false;
  d.storedModTime = d.modTime;
  d.source = source;
  ScopedLock lock(_mutex);
  auto it = _byCRC.find(d.initCRC);
  if (it != _byCRC.end() && it->second.data.seekPtr >= d.seekPtr) return true;
  Locked_updateSeek(d);
  return true;
}

IQueryRunner* FileInputTracker::queryRunner() {
  ScopedLock lock(_mutex);
  return _runner;
}

bool FileInputTracker::Locked_queryShortHead(const FileDescriptor& fd, const FileData& data, const Str& salt,
                                             FileData& stored) {
  if (!_runner || data.trackingRule == FileData::kRuleEntireMd5 || data.trackingRule == FileData::kRuleModTime)
    return false;
  uint64_t start = 0, read = 0;
  if (headStart(fd, data.fileSize, data.path(), start, read) != HeadStart::Ok) return false;
  char head[kBlock];
  ssize_t n = fd.pread(head, sizeof head, off_t(start));
  if (n <= 1) return false;
  Str query;
  query.format("SEARCH filename::%s index::%s GET events::0-%d OUTPUT velmorui::2.1", data.path().c_str(),
               kTrackerIndex, kVerifiedRecords - 1);
  std::unordered_map<Str, std::vector<std::shared_ptr<Str>>> results;
  try {
    _runner->runQuery(query.c_str(), kQueryUser, nextQueryId().c_str(), results);
  } catch (const std::exception& e) {
    gLogger.warn(e);
    return false;
  }
  auto found = results.find(Str("events"));
  if (found == results.end()) return false;
  for (const auto& text : found->second) {
    FileData candidate;
    if (!text || !parseRecord(*text, candidate) || candidate.path() != data.path()) continue;
    // The hash of a head shorter than the block: the file was that short
    // when its first lines were read and stored.
    size_t len = 0;
    for (size_t k = 1; k < size_t(n) && !len; ++k) {
      Md5 md5;
      md5.update(salt.data(), salt.size());
      md5.update(head, k);
      uint64_t h = 0;
      if (md5.finish(h) && h == candidate.initCRC) len = k;
    }
    if (!len) continue;
    if (_verifier && !_verifier(*text)) continue;
    gLogger.info("Found %s by its first %lu bytes, stored while it was that short", data.path().c_str(),
                 (unsigned long)len);
    candidate.initCRC = data.initCRC;
    candidate.trackingRule = data.trackingRule;
    candidate.crcSalt = data.crcSalt;
    stored = candidate;
    return true;
  }
  return false;
}

void FileInputTracker::setRecordVerifier(std::function<bool(const Str&)> verifier) {
  ScopedLock lock(_mutex);
  _verifier = std::move(verifier);
}

uint64_t FileInputTracker::foldedMd5(const char* bytes, size_t n) {
  Md5 md5;
  md5.update(bytes, n);
  uint64_t out = 0;
  return md5.finish(out) ? out : 0;
}

// --- the cache ---------------------------------------------------------------------------------

void FileInputTracker::checkCache() {
  ScopedLock lock(_mutex);
  Locked_checkCache();
}

void FileInputTracker::Locked_checkCache() {
  int64_t t = now();
  while (_byCRC.size() + _byPath.size() > kMaxCacheEntries) {
    _window /= 2;
    gLogger.info("Cleaning file tracker cache.");
    int64_t oldest = t - _window;
    std::erase_if(_byCRC, [oldest](const auto& kv) { return kv.second.touched < oldest; });
    std::erase_if(_byPath, [oldest](const auto& kv) { return kv.second.touched < oldest; });
    if (_window == 0) break;  // what is left was all touched just now
  }
  if (_window < kMaxWindow) ++_window;
}

void FileInputTracker::clearCache() {
  ScopedLock lock(_mutex);
  _byCRC.clear();
  _byPath.clear();
  _window = kInitialWindow;
}

void FileInputTracker::syncCacheToDisk() {
  std::vector<std::shared_ptr<PipelineData>> records;
  std::function<bool(std::shared_ptr<PipelineData>)> sink;
  {
    ScopedLock lock(_mutex);
    gLogger.info("File seek store has gotten smaller, possible DB roll. Writing cache to disk...");
    for (const auto& kv : _byCRC) records.push_back(makeRecord(kv.second.data));
    for (const auto& kv : _byPath) records.push_back(makeRecord(kv.second.data));
    sink = _sink;
  }
  if (!sink) return;
  for (auto& r : records)
    if (!sink(r)) gLogger.warn("Could not send a file position record");
}
