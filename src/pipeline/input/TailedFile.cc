#include "pipeline/input/TailedFile.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <string>

#include "framework/FileInputTracker.h"
#include "pipeline/input/SourceTypeName.h"
#include "util/Logger.h"

static Logger gLogger("TailingProcessor");

namespace {

PipelineData::SharedStr shared(Str text) { return std::make_shared<const Str>(std::move(text)); }

}  // namespace

TailedFile::TailedFile(const Str& path, std::shared_ptr<const TailStanza> stanza, const Str& host)
    : _path(path), _stanza(std::move(stanza)) {
  const Str& st = _stanza->sourcetype.empty() ? sourceTypeFromPath(path) : _stanza->sourcetype;
  _source = shared("source::" + path);
  _host = shared("host::" + (_stanza->host.empty() ? host : _stanza->host));
  _sourceType = shared("sourcetype::" + st);
  if (!_stanza->index.empty()) _index = shared(_stanza->index);
  _pathValue = shared(path);
  _one = shared("1");
  PipelineData conf;
  conf.put(PipelineData::sourceKey, _source);
  conf.put(PipelineData::hostKey, _host);
  conf.put(PipelineData::sourceTypeKey, _sourceType);
  conf.put(PipelineData::channelKey, _pathValue);
  conf.defaultConf(true);
  _conf = conf.getIfAvail(PipelineData::confKey);

  data.source = *_source;
  data.crcSalt = _stanza->crcSalt;
}

TailedFile::~TailedFile() {
  if (_fd.isValid()) _fd.close();
}

namespace {
constexpr uint64_t kHead = 256;  // bytes of a file's head that identify it to the tracker
}  // namespace

void TailedFile::startAt(uint64_t pos) {
  _partial.clear();
  readPos = sentPos = recordedPos = pos;
  _headBytes = std::min(data.fileSize, kHead);
}

// A file that was shorter than its identifying head when it was checked (a
// new, empty file) is known to the tracker by the hash of what it had; once
// it has grown, the hash is taken again, so that its positions are stored
// under the identity a later check will find.
void TailedFile::refreshHead() {
  FileData probe = data;
  if (FileInputTracker::instance().checkFile(_fd, probe) == 0) {
    data.initCRC = probe.initCRC;
    data.trackingRule = probe.trackingRule;
  }
  _headBytes = std::min(probe.fileSize, kHead);
}

TailedFile::Record TailedFile::newRecord(uint64_t endOffset) const {
  auto r = std::make_shared<PipelineData>();
  r->put(PipelineData::sourceKey, _source);
  r->put(PipelineData::hostKey, _host);
  r->put(PipelineData::sourceTypeKey, _sourceType);
  if (_index) r->put(PipelineData::indexKey, _index);
  r->put(PipelineData::pathKey, _pathValue);
  r->put(PipelineData::channelKey, _pathValue);
  r->put(PipelineData::confKey, _conf);
  if (endOffset != UINT64_MAX) r->put(PipelineData::seekAddrKey, Str(std::to_string(endOffset)));
  return r;
}

void TailedFile::emit(Str&& raw, uint64_t endOffset, Out& out) {
  Record r = newRecord(endOffset);
  r->put(PipelineData::rawKey, std::move(raw));
  out.push_back(std::move(r));
  sentPos = endOffset;
}

void TailedFile::loadWindow() {
  uint64_t from = readPos > sizeof _window ? readPos - sizeof _window : 0;
  _windowLen = 0;
  if (readPos > from && _fd.isValid()) {
    ssize_t n = _fd.pread(_window, size_t(readPos - from), off_t(from));
    if (n == ssize_t(readPos - from)) _windowLen = size_t(n);
  }
  _windowAt = readPos;
}

void TailedFile::slideWindow(const char* chunk, size_t n) {
  if (n >= sizeof _window) {
    memcpy(_window, chunk + n - sizeof _window, sizeof _window);
    _windowLen = sizeof _window;
  } else {
    size_t keep = std::min(_windowLen, sizeof _window - n);
    memmove(_window, _window + _windowLen - keep, keep);
    memcpy(_window + keep, chunk, n);
    _windowLen = keep + n;
  }
  _windowAt = readPos;
}

void TailedFile::putProgress(PipelineData& r, const char* chunk, const char* lineEnd) {
  if (data.initCRC == 0) return;
  if (!_initCRCText || _initCRCFor != data.initCRC) {
    char hex[24];
    snprintf(hex, sizeof hex, "%llx", (unsigned long long)data.initCRC);
    _initCRCText = shared(Str(hex));
    _initCRCFor = data.initCRC;
  }
  if (!_modTimeText || _modTimeFor != data.modTime) {
    _modTimeText = shared(Str(std::to_string(data.modTime)));
    _modTimeFor = data.modTime;
  }
  // The tracker's seek hash at the end of this line: the 256 bytes before
  // it, or all of them nearer the start. (A whole-file hash, for files
  // tracked by entire_md5, is not kept per line; such lines carry 0 and a
  // restart from their position reads the file again.)
  uint64_t seekCRC = 0;
  if (data.trackingRule != FileData::kRuleEntireMd5) {
    size_t inChunk = size_t(lineEnd - chunk);
    if (inChunk >= sizeof _window) {
      seekCRC = FileInputTracker::foldedMd5(lineEnd - sizeof _window, sizeof _window);
    } else {
      char joined[sizeof _window];
      size_t fromWindow = std::min(_windowLen, sizeof _window - inChunk);
      memcpy(joined, _window + _windowLen - fromWindow, fromWindow);
      if (inChunk) memcpy(joined + fromWindow, chunk, inChunk);
      if (fromWindow + inChunk > 0) seekCRC = FileInputTracker::foldedMd5(joined, fromWindow + inChunk);
    }
  }
  char hex[24];
  snprintf(hex, sizeof hex, "%llx", (unsigned long long)seekCRC);
  r.put(kInitCRCKey, _initCRCText);
  r.put(kSeekCRCKey, Str(hex));
  r.put(kModTimeKey, _modTimeText);
}

void TailedFile::warnLongLine() {
  if (_longLineWarned) return;
  _longLineWarned = true;
  gLogger.warn("A line longer than %zu bytes in %s is cut into pieces of that size", kMaxLine, _path.c_str());
}

ssize_t TailedFile::readLines(std::vector<char>& buf, size_t maxBytes, Out& out) {
  size_t want = std::min(maxBytes, buf.size());
  if (_windowAt != readPos) loadWindow();
  ssize_t n = _fd.pread(buf.data(), want, static_cast<off_t>(readPos));
  if (n <= 0) return n;
  // A file shorter than its identifying head when first checked is known by
  // the hash of what it had; lines past that carry the hash a later check
  // will find.
  if (_headBytes < kHead && readPos + uint64_t(n) > _headBytes) refreshHead();
  struct stat st;
  if (_fd.stat(st)) data.modTime = static_cast<int64_t>(st.st_mtime);
  // Each line sent carries the progress up to its end: putProgress hashes
  // the bytes before it from the window (what came before this read) and
  // the chunk.
  const char* chunk = buf.data();
  const char* p = chunk;
  const char* end = p + n;
  uint64_t off = readPos;  // file offset of p
  while (p < end) {
    const char* nl = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
    size_t segLen = static_cast<size_t>((nl ? nl : end) - p);
    size_t room = kMaxLine - _partial.size();
    if (segLen > room) {
      // The line has grown past the limit: its first kMaxLine bytes go out.
      warnLongLine();
      Str piece;
      piece.reserve(kMaxLine);
      piece.append(_partial).append(p, room);
      _partial.clear();
      p += room;
      off += room;
      emit(std::move(piece), off, out);
      putProgress(*out.back(), chunk, p);
      continue;
    }
    if (nl == nullptr) {
      _partial.append(p, segLen);
      off += segLen;
      break;
    }
    Str line;
    if (_partial.empty()) {
      line.assign(p, segLen);
    } else {
      line.reserve(_partial.size() + segLen);
      line.append(_partial).append(p, segLen);
      _partial.clear();
    }
    p = nl + 1;
    off += segLen + 1;
    emit(std::move(line), off, out);
    putProgress(*out.back(), chunk, p);
  }
  readPos += static_cast<uint64_t>(n);
  slideWindow(chunk, size_t(n));
  return n;
}

void TailedFile::flushPartial(Out& out) {
  if (_partial.empty()) return;
  Str line(_partial);
  _partial.clear();
  emit(std::move(line), readPos, out);
  if (_windowAt == readPos) putProgress(*out.back(), nullptr, nullptr);
}

void TailedFile::pushSeek(Out& out, bool force) {
  if (!_fd.isValid()) return;
  if (!force && sentPos == recordedPos) return;
  struct stat st;
  if (_fd.stat(st)) {
    data.fileSize = static_cast<uint64_t>(st.st_size);
    data.modTime = static_cast<int64_t>(st.st_mtime);
  }
  if (_headBytes < kHead && data.fileSize > _headBytes) refreshHead();
  data.seekPtr = sentPos;
  data.eventTime = static_cast<int64_t>(::time(nullptr));
  FileInputTracker& tracker = FileInputTracker::instance();
  tracker.updateSeekCRC(_fd, data);
  if (Record r = tracker.seekRecord(data)) out.push_back(std::move(r));
  recordedPos = sentPos;
}

void TailedFile::pushDone(Out& out) {
  Record r = newRecord(UINT64_MAX);
  r->put(PipelineData::doneKey, _one);
  out.push_back(std::move(r));
}
