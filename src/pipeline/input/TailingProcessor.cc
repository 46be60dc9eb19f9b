#include "pipeline/input/TailingProcessor.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "framework/FileInputTracker.h"
#include "framework/ShutdownLevel.h"
#include "framework/ShutdownManager.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SettingsMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/XMLAndStringUtil.h"
#include "pipeline/input/GzTempFile.h"
#include "util/Logger.h"
#include "util/Pathname.h"

static Logger gLogger("TailingProcessor");

namespace {

constexpr int64_t kPollMs = 250;           // how often followed files are looked at
constexpr int64_t kWaitMs = 100;           // longest wait of createPipelineData
constexpr int64_t kPartialHoldMs = 3000;   // an unfinished last line goes out after this
constexpr int64_t kDrainGraceMs = 1000;    // a renamed or deleted file may still grow this long
constexpr int64_t kQuietMs = 1000;         // a file unchanged this long ends its last event
constexpr size_t kHeadCheck = 4096;        // a NUL byte in this much makes a file binary
constexpr const char kPrefix[] = "tail:";

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool endsWith(const Str& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool isBinary(const FileDescriptor& fd) {
  char head[kHeadCheck];
  ssize_t n = fd.pread(head, sizeof(head), 0);
  return n > 0 && memchr(head, 0, size_t(n)) != nullptr;
}

Str machineHost() {
  const Str& configured = LoaderInfo::getInstance().getHost();
  if (!configured.empty()) return configured;
  char name[256] = {0};
  if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == 0) return "localhost";
  return name;
}

}  // namespace

const PluginFactory& TailingProcessor::factory() {
  static const SimplePluginFactory<TailingProcessor> f("tailingprocessor");
  return f;
}

TailingProcessor::TailingProcessor() : _buf(TailedFile::kMaxLine) {
  _host = machineHost();
  const Pathname& home = LoaderInfo::getInstance().getHomePath();
  if (home.empty()) {
    _tempDir = "/tmp";
  } else {
    Pathname dir = home / "var/run/velmor";
    dir.mkdir_p();
    _tempDir = dir;
  }
}

TailingProcessor::~TailingProcessor() {
  if (_shutdownLevel) _shutdownLevel->unregisterHandler(this);
}

const PluginFactory& TailingProcessor::batchFactory() {
  static const SimplePluginFactory<TailingProcessor> f("batchfileloaderprocessor");
  return f;
}

void TailingProcessor::init(const xml::node& config, const xml::node&) {
  long maxOpen = 0;
  if (XMLAndStringUtil::fetchValue(config, "maxOpenFiles", maxOpen) && maxOpen > 0) setMaxOpenFiles(size_t(maxOpen));
  Str batchDir;
  if (XMLAndStringUtil::fetchValue(config, "batchDir", batchDir) && !batchDir.empty()) {
    // A drop directory: every file put there is read once, whole.
    Pathname dir(batchDir);
    if (!dir.isDir() && !dir.mkdir_p())
      throw PluginException(Str::fromFormat("Unable to make the batch directory %s: %s", batchDir.c_str(),
                                            strerror(errno)));
    SettingsMap one;
    PropertiesMap& keys = one[Str(kPrefix) + batchDir];
    Str salt;
    if (XMLAndStringUtil::fetchValue(config, "crcSalt", salt) && !salt.empty()) keys.put("crcSalt", salt);
    loadStanzas(one);
  } else {
    loadStanzas();
  }
  // Input stops first when the service shuts down: nothing new is read, and
  // what was read but not handed on is read again at the next start.
  if (ShutdownLevel* level = ShutdownManager::instance().findLevel("Input")) {
    level->registerHandler(this, getName().empty() ? Str("tailingprocessor") : getName());
    _shutdownLevel = level;
  }
}

bool TailingProcessor::signalShutdown() {
  requestStop();
  return true;
}

size_t TailingProcessor::loadStanzas() {
  PropertyPages& pages = PropertyPages::instance("inputs");
  pages.updateConfigs();
  SettingsMap stanzas;
  pages.propsObjByPrefix(kPrefix, stanzas);
  return loadStanzas(stanzas);
}

size_t TailingProcessor::loadStanzas(const SettingsMap& stanzas) {
  _stanzas.clear();
  for (const auto& [name, keys] : stanzas) {
    if (name.compare(0, sizeof(kPrefix) - 1, kPrefix) != 0) continue;
    auto stanza = std::make_shared<TailStanza>();
    Str error;
    if (!TailStanza::parse(name, keys, *stanza, error)) {
      gLogger.error("Input stanza [%s] is skipped: %s", name.c_str(), error.c_str());
      continue;
    }
    if (stanza->disabled) {
      gLogger.info("Input stanza [%s] is disabled", name.c_str());
      continue;
    }
    gLogger.info("Following [%s]", name.c_str());
    _stanzas.push_back(StanzaState{std::move(stanza), 0, false});
  }
  return _stanzas.size();
}

void TailingProcessor::requestStop() {
  _stop = true;
  ScopedLock lock(_waitMutex);
  _wake.internal_wake_all();
}

std::shared_ptr<PipelineData> TailingProcessor::createPipelineData() {
  auto pop = [this] {
    std::shared_ptr<PipelineData> r = std::move(_out.front());
    _out.pop_front();
    return r;
  };
  if (_stop) return nullptr;
  if (!_out.empty()) return pop();
  const int64_t deadline = nowMs() + kWaitMs;
  for (;;) {
    round(nowMs());
    if (!_out.empty()) return pop();
    if (_stop) return nullptr;
    int64_t now = nowMs();
    if (now >= deadline) return nullptr;
    if (_moreToRead) continue;
    int64_t until = std::min(deadline, _nextPollMs);
    for (const StanzaState& s : _stanzas) until = std::min(until, s.nextScanMs);
    if (until <= now) continue;
    ScopedLock lock(_waitMutex);
    if (_stop) return nullptr;
    _wake.wait(_waitMutex, double(until - now) / 1000.0);
  }
}

// --- one round ---------------------------------------------------------------------------

void TailingProcessor::round(int64_t nowMs) {
  if (nowMs >= _nextPollMs || _moreToRead) {
    _moreToRead = false;
    _nextPollMs = nowMs + kPollMs;
    for (auto it = _draining.begin(); it != _draining.end();) {
      if (pollDraining(**it, nowMs)) {
        it = _draining.erase(it);
      } else {
        ++it;
      }
    }
    for (auto it = _files.begin(); it != _files.end();) {
      if (poll(it->second, nowMs)) {
        ++it;
        continue;
      }
      if (it->second) closeDescriptor(*it->second);  // null when sent to be drained
      it = _files.erase(it);
    }
  }
  for (StanzaState& s : _stanzas) {
    if (nowMs < s.nextScanMs) continue;
    scan(s, nowMs);
    s.scanned = true;
    s.nextScanMs = nowMs + int64_t(s.stanza->scanInterval * 1000.0);
  }
}

void TailingProcessor::scan(StanzaState& s, int64_t nowMs) {
  std::vector<Str> paths;
  s.stanza->findFiles(paths);
  for (const Str& p : paths) {
    // Where stanzas overlap ("[tail:/logs]" and "[tail:/logs/b.log]"), the
    // file goes to the one naming it most closely, whose settings (host,
    // source type, index) the user wrote for it; that stanza's own scan
    // takes it.
    if (_files.count(p) != 0) continue;
    size_t mine = s.stanza->specificity(p);
    bool closer = false;
    for (const StanzaState& other : _stanzas)
      if (other.stanza != s.stanza && other.stanza->specificity(p) > mine) closer = true;
    if (!closer) follow(p, s.stanza, !s.scanned, nowMs);
  }
}

// --- starting to follow a file ---------------------------------------------------------

void TailingProcessor::follow(const Str& path, const std::shared_ptr<const TailStanza>& stanza, bool firstLook,
                              int64_t nowMs) {
  if (_files.count(path) != 0) return;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  if (_identities.count({st.st_dev, st.st_ino}) != 0) return;  // followed already, under another name
  if (wasSkipped(path, st)) return;
  if (stanza->ignoreOlderThan > 0 && int64_t(st.st_mtime) < int64_t(::time(nullptr)) - stanza->ignoreOlderThan) {
    gLogger.info("Passing over %s: not modified within ignoreOlderThan of [%s]", path.c_str(),
                 stanza->name().c_str());
    skip(path, st);
    return;
  }
  if (endsWith(path, ".gz")) {
    followGz(path, st, stanza, firstLook, nowMs);
    return;
  }
  FileDescriptor fd;
  if (!openDescriptor(path, fd)) {
    gLogger.warn("Cannot open %s: %m; passing over it until it changes", path.c_str());
    skip(path, st);
    return;
  }
  struct stat fst;
  if (!fd.stat(fst)) fst = st;
  auto f = std::make_unique<TailedFile>(path, stanza, _host);
  f->dev = fst.st_dev;
  f->ino = fst.st_ino;
  f->adopt(fd);
  if (isBinary(f->fd())) {
    gLogger.info("Passing over binary file %s", path.c_str());
    closeDescriptor(*f);
    skip(path, fst);
    return;
  }
  if (FileInputTracker::instance().checkFile(f->fd(), f->data) != 0) {
    gLogger.warn("The file tracker cannot use %s; passing over it until it changes", path.c_str());
    closeDescriptor(*f);
    skip(path, fst);
    return;
  }
  uint64_t size = uint64_t(fst.st_size);
  uint64_t start = std::min<uint64_t>(f->data.seekPtr, size);
  bool toEnd = stanza->followTail && firstLook && start == 0 && size > 0;
  if (toEnd) start = size;
  f->startAt(start);
  f->lastGrowthMs = f->lastUseMs = nowMs;
  gLogger.debug("Following %s from offset %llu", path.c_str(), (unsigned long long)start);
  if (toEnd) f->pushSeek(_out, true);
  _identities.insert({f->dev, f->ino});
  _files[path] = std::move(f);
}

void TailingProcessor::followGz(const Str& path, const struct stat& st,
                                const std::shared_ptr<const TailStanza>& stanza, bool firstLook, int64_t nowMs) {
  Skipped seen{st.st_ino, st.st_size, int64_t(st.st_mtime), int64_t(st.st_ctime)};
  auto it = _gzDone.find(path);
  if (it != _gzDone.end() && it->second == seen) return;
  _gzDone[path] = seen;
  if (stanza->followTail && firstLook) return;  // there before the input started: its end is where we are

  makeRoom();
  Str error;
  FileDescriptor fd = GzTempFile::expand(path, _tempDir, error);
  if (!fd.isValid()) {
    gLogger.warn("Cannot unpack %s: %s; passing over it", path.c_str(), error.c_str());
    return;
  }
  ++_openCount;
  auto f = std::make_unique<TailedFile>(path, stanza, _host);
  f->dev = st.st_dev;
  f->ino = st.st_ino;
  f->adopt(fd);
  if (isBinary(f->fd())) {
    gLogger.info("Passing over binary file %s", path.c_str());
    closeDescriptor(*f);
    return;
  }
  if (FileInputTracker::instance().checkFile(f->fd(), f->data) != 0) {
    gLogger.warn("The file tracker cannot use the unpacked %s; passing over it", path.c_str());
    closeDescriptor(*f);
    return;
  }
  struct stat tst;
  uint64_t size = f->fd().stat(tst) ? uint64_t(tst.st_size) : 0;
  uint64_t start = std::min<uint64_t>(f->data.seekPtr, size);
  gLogger.info("Reading compressed file %s from offset %llu of %llu", path.c_str(), (unsigned long long)start,
               (unsigned long long)size);
  f->startAt(start);
  f->lastGrowthMs = f->lastUseMs = nowMs;
  f->draining = true;
  f->wholeFile = true;
  _identities.insert({f->dev, f->ino});
  _draining.push_back(std::move(f));
}

// --- following ---------------------------------------------------------------------------

bool TailingProcessor::poll(std::unique_ptr<TailedFile>& fp, int64_t nowMs) {
  TailedFile& f = *fp;
  struct stat st;
  bool there = ::stat(f.path().c_str(), &st) == 0 && S_ISREG(st.st_mode);
  if (!there || st.st_dev != f.dev || st.st_ino != f.ino) {
    // Renamed away, deleted or replaced: what is left of it is read through
    // the open descriptor; a new file at the path is found by the next scan.
    if (f.isOpen()) {
      gLogger.info("%s was %s; reading the old file to its end", f.path().c_str(), there ? "replaced" : "removed");
      startDraining(std::move(fp), nowMs);
    } else {
      gLogger.warn("%s was %s while it was closed; it is finished where it was read", f.path().c_str(),
                   there ? "replaced" : "removed");
      f.flushPartial(_out);
      f.pushDone(_out);
      _identities.erase({f.dev, f.ino});
    }
    return false;
  }
  uint64_t size = uint64_t(st.st_size);
  if (size < f.readPos) {
    if (!f.isOpen() && !reopen(f)) return false;
    gLogger.info("%s was truncated (size %llu, read to %llu); the file tracker decides where to resume",
                 f.path().c_str(), (unsigned long long)size, (unsigned long long)f.readPos);
    f.flushPartial(_out);
    if (FileInputTracker::instance().checkFile(f.fd(), f.data) != 0) {
      gLogger.warn("The file tracker cannot use %s any more; it is finished", f.path().c_str());
      finish(f);
      return false;
    }
    f.startAt(std::min<uint64_t>(f.data.seekPtr, size));
    f.lastGrowthMs = nowMs;
  }
  if (size > f.readPos) {
    if (!f.isOpen() && !reopen(f)) return false;
    if (!readChunk(f, nowMs)) {
      finish(f);
      return false;
    }
    return true;
  }
  if (f.hasPartial() && nowMs - f.partialSinceMs >= kPartialHoldMs) f.flushPartial(_out);
  if (!f.hasPartial() && f.sentPos != f.recordedPos && nowMs - f.lastGrowthMs >= kQuietMs) {
    // Quiet: the event the line merger holds open for this file is ended
    // (the done record), and only then its position recorded.
    f.pushDone(_out);
    f.pushSeek(_out);
  }
  return true;
}

bool TailingProcessor::pollDraining(TailedFile& f, int64_t nowMs) {
  struct stat st;
  if (!f.fd().stat(st)) {
    finish(f);
    return true;
  }
  uint64_t size = uint64_t(st.st_size);
  if (size > f.readPos) {
    if (!readChunk(f, nowMs)) {
      finish(f);
      return true;
    }
    return false;
  }
  if (_moreToRead && outputFull()) return false;
  if (size < f.readPos || f.wholeFile || nowMs - f.lastGrowthMs >= kDrainGraceMs) {
    finish(f);
    return true;
  }
  return false;
}

bool TailingProcessor::readChunk(TailedFile& f, int64_t nowMs) {
  if (outputFull()) {
    _moreToRead = true;
    return true;
  }
  const size_t before = _out.size();
  ssize_t n = f.readLines(_buf, TailedFile::kMaxLine, _out);
  // The tracker's cache learns how far the lines sent reach, so that the
  // same file found again (renamed, compressed, or by a restarted input)
  // goes on from there; the position record itself waits for the done one.
  if (_out.size() > before) FileInputTracker::instance().notePosition(*_out.back());
  if (n < 0) {
    gLogger.warn("Cannot read %s: %m; it is finished", f.path().c_str());
    return false;
  }
  if (n > 0) {
    f.lastGrowthMs = f.lastUseMs = nowMs;
    if (f.hasPartial()) f.partialSinceMs = nowMs;
    if (size_t(n) == TailedFile::kMaxLine) _moreToRead = true;
  }
  return true;
}

void TailingProcessor::startDraining(std::unique_ptr<TailedFile> f, int64_t nowMs) {
  f->draining = true;
  f->lastGrowthMs = nowMs;
  // Read what is there now, so the old file's lines come before the new one's.
  struct stat st;
  while (!outputFull() && f->fd().stat(st) && uint64_t(st.st_size) > f->readPos) {
    if (!readChunk(*f, nowMs)) break;
  }
  _draining.push_back(std::move(f));
}

void TailingProcessor::finish(TailedFile& f) {
  f.flushPartial(_out);
  f.pushDone(_out);
  f.pushSeek(_out);
  closeDescriptor(f);
  _identities.erase({f.dev, f.ino});
}

// --- descriptors ------------------------------------------------------------------------

bool TailingProcessor::openDescriptor(const Str& path, FileDescriptor& fd) {
  makeRoom();
  int n = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (n < 0) return false;
  fd = FileDescriptor(n);
  ++_openCount;
  return true;
}

void TailingProcessor::closeDescriptor(TailedFile& f) {
  if (!f.isOpen()) return;
  f.closeFd();
  --_openCount;
}

void TailingProcessor::makeRoom() {
  while (_openCount >= _maxOpen) {
    TailedFile* victim = nullptr;
    for (auto& [path, f] : _files) {
      if (!f->isOpen() || f->hasPartial()) continue;
      if (victim == nullptr || f->lastUseMs < victim->lastUseMs) victim = f.get();
    }
    if (victim == nullptr) return;  // only busy files: go above the limit for now
    closeDescriptor(*victim);
  }
}

bool TailingProcessor::reopen(TailedFile& f) {
  FileDescriptor fd;
  struct stat st;
  bool opened = openDescriptor(f.path(), fd);
  if (opened && fd.stat(st) && st.st_dev == f.dev && st.st_ino == f.ino) {
    f.adopt(fd);
    return true;
  }
  if (opened) {
    // Replaced between the look and the open; the next scan finds the new one.
    fd.close();
    --_openCount;
    gLogger.warn("%s was replaced while it was closed; it is finished where it was read", f.path().c_str());
  } else {
    gLogger.warn("Cannot reopen %s: %m; it is finished where it was read", f.path().c_str());
    if (::stat(f.path().c_str(), &st) == 0) skip(f.path(), st);
  }
  f.flushPartial(_out);
  f.pushDone(_out);
  _identities.erase({f.dev, f.ino});
  return false;
}

// --- files passed over ------------------------------------------------------------------

void TailingProcessor::skip(const Str& path, const struct stat& st) {
  _skipped[path] = Skipped{st.st_ino, st.st_size, int64_t(st.st_mtime), int64_t(st.st_ctime)};
}

bool TailingProcessor::wasSkipped(const Str& path, const struct stat& st) const {
  auto it = _skipped.find(path);
  if (it == _skipped.end()) return false;
  return it->second == Skipped{st.st_ino, st.st_size, int64_t(st.st_mtime), int64_t(st.st_ctime)};
}
