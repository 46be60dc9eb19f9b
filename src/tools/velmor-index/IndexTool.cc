#include "tools/velmor-index/IndexTool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/QSMSetAcceptor.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "pipeline/analysis/Aggregator.h"
#include "pipeline/analysis/AggregatorProcessor.h"
#include "framework/PipelineData.h"
#include "pipeline/input/SourceTypeName.h"
#include "util/WildcardMatcher.h"
#include "util/ReadWriteLock.h"

namespace {

// A file larger than this gets progress lines at each sync.
const uint64_t kLongFile = 4 << 20;

void formatTime(int64_t t, char* buf, size_t size) {
  time_t tt = time_t(t);
  struct tm tm;
  gmtime_r(&tt, &tm);
  strftime(buf, size, "%Y-%m-%dT%H:%M:%SZ", &tm);
}

const char* stateName(TEDB::State s) {
  switch (s) {
    case TEDB::kHot:
      return "hot";
    case TEDB::kWarm:
      return "warm";
    case TEDB::kCold:
      return "cold";
    case TEDB::kThawed:
      return "thawed";
  }
  return "?";
}

}  // namespace

IndexTool::IndexTool(const IndexToolArgs& args, FILE* out, FILE* err) : _args(args), _out(out), _err(err) {}

IndexTool::~IndexTool() {
  if (_policy) {
    try {
      _policy->close();
    } catch (const std::exception& e) {
      fail("closing %s: %s", _args.index.c_str(), e.what());
    }
  }
}

void IndexTool::fail(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("velmor-index: ", _err);
  vfprintf(_err, fmt, ap);
  fputc('\n', _err);
  va_end(ap);
}

int IndexTool::run() {
  if (_args.command == IndexToolArgs::kQuery) return query();
  if (!loadParams()) return 1;
  switch (_args.command) {
    case IndexToolArgs::kAdd:
      return add();
    case IndexToolArgs::kSearch:
      return search();
    case IndexToolArgs::kRoll:
      return roll();
    case IndexToolArgs::kInfo:
      return info();
    case IndexToolArgs::kQuery:
    case IndexToolArgs::kHelp:
      break;
  }
  return 0;
}

bool IndexTool::loadParams() {
  PropertyPages& pages = PropertyPages::instance("indexes");
  if (_args.index == "default" || !pages.propsExist(_args.index)) {
    fail("no index named '%s' in the indexes configuration", _args.index.c_str());
    return false;
  }
  PropertiesMap stanza;
  pages.fillLayers(stanza, _args.index, false);
  try {
    _params = PolicyParameters::fromStanza(_args.index, stanza);
  } catch (const std::exception& e) {
    fail("%s", e.what());
    return false;
  }
  return true;
}

bool IndexTool::openPolicy(bool readOnly) {
  try {
    _policy = std::make_unique<DatabasePartitionPolicy>(_params);
    _policy->start(readOnly);
  } catch (const std::exception& e) {
    fail("cannot open index '%s': %s", _args.index.c_str(), e.what());
    _policy.reset();
    return false;
  }
  return true;
}

// --- add -----------------------------------------------------------------------------

int IndexTool::add() {
  // Every file must be readable before anything is written.
  for (const Str& f : _args.files) {
    Pathname p(f);
    if (p.isDir()) {
      fail("%s is a directory", f.c_str());
      return 1;
    }
    if (!p.r_ok()) {
      fail("cannot read %s: %s", f.c_str(), strerror(errno));
      return 1;
    }
  }
  // A command-line run should leave its optimisers finished, not killed.
  _params.waitForOptimize = 1;
  if (!openPolicy(false)) return 1;
  if (_policy->isReadOnly()) {
    fail("index '%s' is read-only", _args.index.c_str());
    return 1;
  }
  // One cleaner per source type, each from its segmenter stanza; they live
  // until the index is closed.
  PropertyPages& seg = PropertyPages::instance("segmenters");
  std::map<Str, std::unique_ptr<GenericCleaner>> cleaners;
  uint64_t total = 0;
  int status = 0;
  for (const Str& f : _args.files) {
    Str sourceType = _args.sourceType.empty() ? sourceTypeFromPath(f) : _args.sourceType;
    std::unique_ptr<GenericCleaner>& cleaner = cleaners[sourceType];
    if (!cleaner) {
      PropertiesMap stanza;
      seg.fillLayers(stanza, sourceType, false);
      cleaner = std::make_unique<GenericCleaner>(stanza);
    }
    if (addFile(f, sourceType, cleaner.get(), total) != 0) status = 1;
  }
  if (_args.files.size() > 1) fprintf(_err, "velmor-index: %llu events added to %s\n", (unsigned long long)total,
                                      _args.index.c_str());
  // The cleaners are about to go: the index must hold no queued event of them.
  // A last optimiser run leaves the hot bucket in few slices; close waits.
  try {
    if (_params.optimizeEvery > 0 && total > 0) {
      fprintf(_err, "velmor-index: merging the slices of %s\n", _args.index.c_str());
      // A bucket takes one optimiser at a time, and one still running merges
      // only the slices it found: the last run starts after it.
      {
        ScopedReader r(_policy->tableLock());
        if (_policy->table().hot && _policy->table().hot->isOpen()) _policy->table().hot->index().waitForOptimizers();
      }
      _policy->optimizeHotDb();
    }
    _policy->close();
  } catch (const std::exception& e) {
    fail("closing %s: %s", _args.index.c_str(), e.what());
    status = 1;
  }
  _policy.reset();
  return status;
}

void IndexTool::syncAndMaybeRoll() {
  _policy->sync(true);
  Pathname hot;
  {
    ScopedReader r(_policy->tableLock());
    if (_policy->table().hot) hot = _policy->table().hot->path();
  }
  if (!hot.empty() && hot.treeSize() > _params.maxDataSizeBytes) {
    _policy->rollHotDb();
    return;
  }
  int64_t now = int64_t(time(nullptr));
  if (_params.optimizeEvery > 0 && now - _lastOptimize >= _params.optimizeEvery) {
    _lastOptimize = now;
    _policy->optimizeHotDb();
  }
}

int IndexTool::addFile(const Str& file, const Str& sourceType, GenericCleaner* cleaner, uint64_t& totalAdded) {
  FILE* in = fopen(file.c_str(), "r");
  struct stat st;
  if (!in || fstat(fileno(in), &st) != 0) {
    fail("cannot read %s: %s", file.c_str(), strerror(errno));
    if (in) fclose(in);
    return 1;
  }
  char absolute[PATH_MAX];
  Str source = realpath(file.c_str(), absolute) ? Str(absolute) : file;
  char hostBuf[256] = "localhost";
  if (_args.host.empty() && gethostname(hostBuf, sizeof hostBuf - 1) != 0) strcpy(hostBuf, "localhost");
  Str host = _args.host.empty() ? Str(hostBuf) : _args.host;
  const uint64_t size = uint64_t(st.st_size);
  const bool progress = size > kLongFile;

  // Lines become events and get their times as the service makes them: by
  // the props of this file's source, host and source type (line merging,
  // date patterns). A line before any stamp takes the file's modification
  // time, which is also the reference for stamps without a year.
  Aggregator agg("source::" + source + "|host::" + host + "|sourcetype::" + sourceType + "|" + source);
  agg.dateParser().setDateByString(StrSegment(source));
  const Str mtimeText = std::to_string(int64_t(st.st_mtime));
  // A big stdio buffer: fewer reads for the same lines.
  setvbuf(in, nullptr, _IOFBF, 1 << 20);

  // Every line carries the same keys but its text, so the events are made
  // from text alone: one reused buffer per event text, time and date terms.
  WritableEvent ev;
  ev.host = StrSegment(host);
  ev.source = StrSegment(source);
  ev.sourceType = StrSegment(sourceType);
  ev.cleaner = cleaner;
  char* line = nullptr;
  size_t cap = 0;
  ssize_t n;
  uint64_t added = 0, skipped = 0, sinceSync = 0, bytes = 0, lines = 0;
  Str event, timeText, meta;
  auto write = [&]() {
    int64_t seconds = 0;
    meta.clear();
    if (AggregatorProcessor::eventTime(agg, StrSegment(event.data(), event.size()), mtimeText.c_str(), seconds,
                                       meta)) {
      timeText.clear();
      PipelineData::appendTimeText((unsigned long)seconds, timeText);
      ev.time = StrSegment(timeText.data(), timeText.size());
    } else {
      ev.time = StrSegment(mtimeText.data(), mtimeText.size());
    }
    ev.raw = StrSegment(event.data(), event.size());
    ev.meta = StrSegment(meta.data(), meta.size());
    if (!_policy->write(ev)) {
      ++skipped;
      return;
    }
    ++added;
    if (++sinceSync >= _args.syncEvery) {
      sinceSync = 0;
      syncAndMaybeRoll();
      if (progress) {
        fprintf(_err, "velmor-index: %s: %llu/%llu bytes, %llu events\n", file.c_str(), (unsigned long long)bytes,
                (unsigned long long)size, (unsigned long long)added);
        fflush(_err);
      }
    }
  };
  while ((n = getline(&line, &cap, in)) > 0) {
    bytes += uint64_t(n);
    ++lines;
    size_t len = size_t(n);
    while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) --len;
    const StrSegment text(line, len);
    if (agg.processText(&text, event)) write();
  }
  if (agg.processText(nullptr, event)) write();
  const bool readError = ferror(in);
  const int readErrno = errno;
  free(line);
  fclose(in);
  syncAndMaybeRoll();
  totalAdded += added;
  if (readError) {
    fail("error reading %s after %llu lines: %s", file.c_str(), (unsigned long long)lines, strerror(readErrno));
    return 1;
  }
  fprintf(_err, "velmor-index: %s: %llu events added to %s", file.c_str(), (unsigned long long)added,
          _args.index.c_str());
  skipped += agg.blankLinesDropped();
  if (skipped) fprintf(_err, ", %llu blank lines skipped", (unsigned long long)skipped);
  fputc('\n', _err);
  fflush(_err);
  return 0;
}

// --- search ----------------------------------------------------------------------------

int IndexTool::search() {
  if (!openPolicy(true)) return 1;
  // Each argument is cut into words as a search cuts its text; the words are
  // looked up, and an argument of more than one word ("10.0.0.2",
  // "action=delete") must also stand in the event's text, case aside.
  // key::value terms go to the index as they are.
  const GenericCleaner* cleaner = _policy->cleanerByName("search");
  std::vector<Str> terms;
  std::vector<WildcardMatcher> phrases;  // "*<argument>*", as the query language filters phrases
  for (const Str& t : _args.terms) {
    Str lower = lowercase(t);
    std::vector<Str> words;
    if (cleaner && lower.find("::") == Str::npos) words = QSMSetAcceptor::searchWords(*cleaner, lower);
    if (words.size() <= 1) {
      terms.push_back(words.empty() ? lower : words[0]);
      continue;
    }
    terms.insert(terms.end(), words.begin(), words.end());
    phrases.emplace_back(StrSegment(Str("*" + lower + "*")));
  }
  // Without phrases one query answers; with them, candidates come in rounds
  // (newest first) until --count events hold the phrases or none are left.
  const size_t wanted = size_t(_args.count);
  const size_t round = phrases.empty() ? wanted : 100000;
  size_t printed = 0;
  int status = 0;
  std::vector<ValueWrapper> values;
  Str lowerRaw;
  for (size_t skip = 0; printed < wanted; skip += round) {
    if (!_policy->query(terms, {}, {}, int32_t(_args.earliest), int32_t(_args.latest), round, values, skip)) {
      fail("the search of '%s' failed", _args.index.c_str());
      return 1;
    }
    if (!printEvents(values, phrases, wanted, printed, lowerRaw)) status = 1;
    if (values.size() < round) break;
  }
  return status;
}

bool IndexTool::printEvents(const std::vector<ValueWrapper>& values, const std::vector<WildcardMatcher>& phrases,
                            size_t wanted,
                            size_t& printed, Str& lowerRaw) {
  // Events are read in chunks, each in address order within its bucket, so
  // that compressed raw files are read forwards; they are printed newest
  // first, as found.
  const size_t kChunk = 10000;
  bool status = true;
  char when[32];
  std::vector<size_t> order;
  std::vector<ValueWrapper> sorted;
  std::vector<DataWrapper> data;
  std::vector<bool> ok;
  std::vector<size_t> slot;
  for (size_t from = 0; from < values.size() && printed < wanted; from += kChunk) {
    size_t to = std::min(values.size(), from + kChunk);
    order.resize(to - from);
    for (size_t i = from; i < to; ++i) order[i - from] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      if (values[a].bucketId != values[b].bucketId) return values[a].bucketId < values[b].bucketId;
      return values[a].address < values[b].address;
    });
    sorted.clear();
    slot.assign(to - from, 0);
    for (size_t k = 0; k < order.size(); ++k) {
      sorted.push_back(values[order[k]]);
      slot[order[k] - from] = k;
    }
    _policy->read(sorted, data, ok);
    for (size_t i = from; i < to && printed < wanted; ++i) {
      const ValueWrapper& v = values[i];
      size_t k = slot[i - from];
      if (!ok[k]) {
        fail("cannot read event %s", v.cd().c_str());
        status = false;
        continue;
      }
      const StrSegment& raw = data[k].raw;
      if (!phrases.empty()) {
        lowerRaw.assign(raw.data(), raw.size());
        for (char& c : lowerRaw) c = char(std::tolower((unsigned char)c));
        bool all = true;
        for (const WildcardMatcher& p : phrases) all = all && p.isMatch(StrSegment(lowerRaw));
        if (!all) continue;
      }
      ++printed;
      formatTime(v.time, when, sizeof when);
      fprintf(_out, "%s\t%s\t%.*s\n", when, v.cd().c_str(), int(raw.size()), raw.data());
    }
  }
  return status;
}

// --- roll and info ------------------------------------------------------------------------

int IndexTool::roll() {
  // A command-line run should leave its optimisers finished, not killed.
  _params.waitForOptimize = 1;
  if (!openPolicy(false)) return 1;
  if (_policy->isReadOnly()) {
    fail("index '%s' is read-only", _args.index.c_str());
    return 1;
  }
  if (!_policy->rollHotDb()) {
    fprintf(_err, "velmor-index: the hot bucket of %s is empty; nothing to roll\n", _args.index.c_str());
    return 0;
  }
  Pathname rolled;
  {
    ScopedReader r(_policy->tableLock());
    // The bucket just rolled is the newest of the warm queue.
    if (!_policy->table().warm.empty()) rolled = _policy->table().warm.back()->path();
  }
  if (rolled.empty())
    fprintf(_err,
            "velmor-index: rolled the hot bucket of %s; it froze at once (older than frozenTimePeriodInSecs, or "
            "over maxTotalDataSizeMB)\n",
            _args.index.c_str());
  else
    fprintf(_err, "velmor-index: rolled the hot bucket of %s to %s\n", _args.index.c_str(), rolled.c_str());
  return 0;
}

int IndexTool::info() {
  if (!openPolicy(true)) return 1;
  struct Row {
    Str state, name;
    uint32_t id;
    int64_t start, end;
    long long events;
    uint64_t bytes;
  };
  std::vector<Row> rows;
  {
    ScopedReader r(_policy->tableLock());
    for (const auto& b : _policy->table().all()) {
      Row row{stateName(b->state()), b->path().toLeaf(), b->id(), 0, 0, -1, b->path().treeSize()};
      st_handle* h = st_open_wflags(b->path().c_str(), 1);
      st_meta_answer a{};
      if (h && st_meta(h, "meta::all", &a) >= 0) {
        row.events = a.count;
        row.start = a.earliest;
        row.end = a.latest;
      } else if (h) {
        row.events = 0;
      }
      if (h) st_close(h);
      rows.push_back(row);
    }
  }
  if (rows.empty()) {
    // Nothing to tabulate: say so instead of printing a bare header.
    fprintf(_out, "index '%s' holds no buckets: nothing has been written to %s yet\n", _args.index.c_str(),
            _params.homePath.c_str());
    return 0;
  }
  fprintf(_out, "%-6s %5s %-20s %-20s %10s %12s  %s\n", "STATE", "ID", "EARLIEST", "LATEST", "EVENTS", "BYTES",
          "DIRECTORY");
  for (const Row& r : rows) {
    char a[32] = "-", b[32] = "-";
    if (r.events > 0) {
      formatTime(r.start, a, sizeof a);
      formatTime(r.end, b, sizeof b);
    }
    fprintf(_out, "%-6s %5u %-20s %-20s %10lld %12llu  %s\n", r.state.c_str(), r.id, a, b, r.events,
            (unsigned long long)r.bytes, r.name.c_str());
  }
  return 0;
}

// --- query -------------------------------------------------------------------------------

int IndexTool::query() {
  IndexProcessor processor;
  try {
    processor.init(true, false);
  } catch (const std::exception& e) {
    fail("cannot open the indexes: %s", e.what());
    return 1;
  }
  Str doc;
  processor.runQuery(_args.queryText.c_str(), _args.user.c_str(), _args.queryId.c_str(), doc);
  fwrite(doc.data(), 1, doc.size(), _out);
  if (!doc.empty() && doc.back() != '\n') fputc('\n', _out);
  return 0;
}
