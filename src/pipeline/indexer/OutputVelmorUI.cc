#include "pipeline/indexer/OutputVelmorUI.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>
#include <set>

#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/ICleanCallback.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/OutputVelmorUI21.h"
#include "pipeline/indexer/OutputVelmorUI22.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("OutputVelmorUI");

namespace {

const char* const kDefaultTimeFormat = "%m/%d/%Y:%H:%M:%S";
const size_t kFlushAt = 64 * 1024;

// The fixed order of the lists in the document.
const char* const kListOrder[] = {"hosts", "sources", "sourcetypes", "types", "eventtags", "hosttags", "formats"};

// Collects the segments a cleaner finds, as offsets into its text.
template <typename Segment>
class SegmentCollector : public ICleanCallback {
 public:
  explicit SegmentCollector(std::vector<Segment>& out) : _out(out) {}
  bool acceptToken(const char*, size_t, size_t start, size_t end) override {
    _out.push_back(Segment{start, end});
    return true;
  }

 private:
  std::vector<Segment>& _out;
};

}  // namespace

OutputVelmorUI::OutputVelmorUI(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
    : Module(query, std::move(args), name) {}

OutputVelmorUI::~OutputVelmorUI() = default;

void OutputVelmorUI::runModule() {
  Str version = getArg("velmorui");
  if (version == "2.1") {
    OutputVelmorUI21(_query, _args, _name).write();
  } else if (version == "2.2") {
    OutputVelmorUI22(_query, _args, _name).write();
  } else {
    throw QueryException(Str("Unsupported version ") + version + " requested ");
  }
}

void OutputVelmorUI::write() {
  if (_query->modules("SEARCH").empty()) throw QueryException("Unable to output because no SEARCH was specified");
  Str format = getArg("format");
  if (format.empty() || format == "raw") {
    _format = kRaw;
  } else if (format == "all") {
    _format = kAll;
  } else if (format == "inner") {
    _format = kInner;
  } else if (format == "outer") {
    _format = kOuter;
  } else {
    throw QueryException(Str("Unknown format : ") + format);
  }
  _idCount = getArg("idcount").toLong(0);
  _maxLines = getArg("maxlines").toLong(-1);
  _timeFormat = getArg("timeformat");
  if (_timeFormat.empty()) _timeFormat = kDefaultTimeFormat;
  _stream = _query->output();
  if (!_stream) {
    gLogger.debug("No output stream for query %s: nothing written", _query->getQueryId().c_str());
    return;
  }
  auto& map = _query->resultMap();
  auto events = map.find("events");
  if (_format != kRaw && events != map.end() && !events->second.empty()) {
    _cleaner = GetModule::policyOf(*_query)->cleanerByName("SEGMENTATION");
    if (!_cleaner) throw QueryException("Unknown cleaner : SEGMENTATION");
  }

  try {
    writeMessages();
    if (events != map.end()) writeEvents(events->second);
    std::set<Str> done;
    for (const char* kind : kListOrder) {
      auto it = map.find(kind);
      if (it == map.end()) continue;
      writeList(it->first, it->second);
      done.insert(it->first);
    }
    std::set<Str> others;
    for (const auto& [kind, rows] : map)
      if (kind != "events" && !done.count(kind)) others.insert(kind);
    for (const Str& kind : others) writeList(kind, map[kind]);
    writeIds();
    flush();
  } catch (const std::bad_alloc&) {
    _out.clear();
    _out.shrink_to_fit();
    throw QueryException("Unable to allocate sufficient memory for results. Please try a smaller result set.");
  }
}

void OutputVelmorUI::writeMessages() {
  const auto& messages = _query->getMessages();
  bool any = false;
  for (const auto& [level, texts] : messages) any = any || !texts.empty();
  if (!any) return;
  _out += "<results type=\"message\">\n";
  for (const auto& [level, texts] : messages) {
    for (const Str& t : texts) {
      _out += "<msg type=\"";
      appendEscaped(StrSegment(level), true);
      _out += "\">";
      appendEscaped(StrSegment(t));
      _out += "</msg>\n";
    }
  }
  _out += "</results>\n\n";
}

void OutputVelmorUI::writeIds() {
  if (_idCount <= 0) return;
  const std::vector<ValueWrapper>& ids = _query->results();
  _out += "<ids>\n";
  for (size_t i = 0; i < ids.size() && long(i) < _idCount; ++i) {
    const ValueWrapper& v = ids[i];
    _out.appendFormat("\t<id t=\"%lu\" ty=\"%ld\" src=\"%d\" h=\"%ld\" st=\"%ld\" >%d: %lld</id>\n",
                      (unsigned long)(uint32_t)v.time, long(v.type), int(v.source), long(v.host), long(v.sourceType),
                      int(v.bucketId), (long long)v.address);
    flush(kFlushAt);
  }
  _out += "</ids>\n";
}

void OutputVelmorUI::flush(size_t atLeast) {
  if (_out.size() <= atLeast && atLeast != 0) return;
  if (!_out.empty() && _stream) std::fwrite(_out.data(), 1, _out.size(), _stream);
  _out.clear();
}

// --- event text ------------------------------------------------------------------------

long OutputVelmorUI::lineCount(const Str& raw) { return 1 + long(std::count(raw.begin(), raw.end(), '\n')); }

void OutputVelmorUI::appendEventText(const Str& raw) {
  size_t cut = raw.size();
  if (_maxLines >= 0) {
    size_t p = 0;
    for (long line = 0;; ++line) {
      if (line == _maxLines) {
        cut = p == 0 ? 0 : p - 1;
        break;
      }
      size_t nl = raw.find('\n', p);
      if (nl == Str::npos) break;
      p = nl + 1;
    }
    if (cut < raw.size()) gLogger.debug("\n\n\t!!!!!!!!!!!!!maxlines reached\n\n");
  }
  StrSegment text(raw.data(), cut);
  if (_format == kRaw || !_cleaner) {
    appendEscaped(text);
  } else {
    appendSegmented(text);
  }
}

void OutputVelmorUI::openSegment(const StrSegment& text, unsigned long cls) {
  _out.appendFormat("<sg c=\"%lu\"", cls);
  if (isSearchTerm(text)) _out += " h=\"1\"";
  _out += '>';
}

// The cleaner's segments form a nested family: a term holds its pieces and
// the runs of pieces from its start; runs start where their term starts.
// Sorted by start, longer first, a segment's inner segments follow it
// directly. A segment that would cross another (none should) is skipped.
void OutputVelmorUI::appendSegmented(const StrSegment& text) {
  _segments.clear();
  SegmentCollector<Segment> collect(_segments);
  _cleaner->tokenize(text, collect);
  std::sort(_segments.begin(), _segments.end(),
            [](const Segment& a, const Segment& b) { return a.start != b.start ? a.start < b.start : a.end > b.end; });
  _segments.erase(std::unique(_segments.begin(), _segments.end(),
                              [](const Segment& a, const Segment& b) { return a.start == b.start && a.end == b.end; }),
                  _segments.end());
  const char* p = text.data();
  const size_t n = _segments.size();
  auto innermost = [&](size_t i) { return i + 1 == n || _segments[i + 1].start >= _segments[i].end; };
  size_t pos = 0;
  auto plainTo = [&](size_t to) {
    if (to > pos) appendEscaped(StrSegment(p + pos, to - pos));
    if (to > pos) pos = to;
  };
  auto element = [&](const Segment& s, unsigned long cls) {
    plainTo(s.start);
    openSegment(StrSegment(p + s.start, s.end - s.start), cls);
    plainTo(s.end);
    _out += "</sg>";
  };

  if (_format == kOuter) {
    size_t lastEnd = 0;
    for (const Segment& s : _segments) {
      if (s.start < lastEnd) continue;
      element(s, kClassTerm);
      lastEnd = s.end;
    }
  } else if (_format == kInner) {
    for (size_t i = 0; i < n; ++i)
      if (innermost(i) && _segments[i].start >= pos) element(_segments[i], kClassPiece);
  } else {
    _open.clear();
    for (size_t i = 0; i < n; ++i) {
      const Segment& s = _segments[i];
      while (!_open.empty() && _open.back().end <= s.start) {
        plainTo(_open.back().end);
        _out += "</sg>";
        _open.pop_back();
      }
      if (!_open.empty() && s.end > _open.back().end) continue;
      plainTo(s.start);
      unsigned long cls = _open.empty() ? kClassTerm : innermost(i) ? kClassPiece : kClassRun;
      openSegment(StrSegment(p + s.start, s.end - s.start), cls);
      _open.push_back(s);
    }
    while (!_open.empty()) {
      plainTo(_open.back().end);
      _out += "</sg>";
      _open.pop_back();
    }
  }
  plainTo(text.size());
}

// --- meta data -------------------------------------------------------------------------

Str OutputVelmorUI::formatTime(const PipelineData& event) const {
  time_t t = time_t(event.getStr(PipelineData::timeKey).toLong(0));
  struct tm tm;
  char buf[256];
  if (localtime_r(&t, &tm) && std::strftime(buf, sizeof buf, _timeFormat.c_str(), &tm) > 0) return Str(buf);
  return ToString(long(t));
}

void OutputVelmorUI::dumpEventMetaData(const PipelineData& event) {
  Str when = formatTime(event);
  _out.appendFormat("<sg c=\"%lu\">", kClassTime);
  appendEscaped(StrSegment(when));
  _out += "</sg> ";
  struct Field {
    unsigned long cls;
    const char* key;
    const Str& value;
  };
  const Field fields[] = {{kClassHost, "host", event.getStr(PipelineData::hostField)},
                          {kClassSource, "source", event.getStr(PipelineData::sourceField)},
                          {kClassSourceType, "sourcetype", event.getStr(PipelineData::sourceTypeField)}};
  for (const Field& f : fields) {
    _term.assign(f.key);
    _term += "::";
    _term += f.value;
    _out.appendFormat("<sg c=\"%lu\"", f.cls);
    if (isSearchTerm(StrSegment(_term))) _out += " h=\"1\"";
    if (f.value.containsWhitespace()) {
      _term.insert(std::strlen(f.key) + 2, 1, '"');
      _term += '"';
    }
    _out += " override=\"+";
    appendEscaped(StrSegment(_term), true);
    _out += "\">";
    appendEscaped(StrSegment(f.value));
    _out += "</sg> ";
  }
}

void OutputVelmorUI::appendRelevance(const Str& cd) {
  if (!_query->getUseScore()) return;
  auto it = _query->scores().find(cd);
  if (it != _query->scores().end()) _out.appendFormat(" rel=\"%f\"", double(it->second));
}

// --- text ------------------------------------------------------------------------------

void OutputVelmorUI::appendEscaped(const StrSegment& text, bool quotes) {
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end) {
    const char* run = p;
    while (p < end) {
      unsigned char c = (unsigned char)*p;
      if (c == '&' || c == '<' || c == '>' || (quotes && (c == '"' || c == '\'')) ||
          (c < 0x20 && c != '\t' && c != '\n' && c != '\r'))
        break;
      ++p;
    }
    _out.append(run, size_t(p - run));
    if (p == end) break;
    switch (*p) {
      case '&':
        _out += "&amp;";
        break;
      case '<':
        _out += "&lt;";
        break;
      case '>':
        _out += "&gt;";
        break;
      case '"':
        _out += "&quot;";
        break;
      case '\'':
        _out += "&apos;";
        break;
      default:
        break;  // a control byte XML cannot carry
    }
    ++p;
  }
}

bool OutputVelmorUI::isSearchTerm(const StrSegment& text) {
  const std::set<Str>& keys = _query->stateMachine().getKeySet();
  if (keys.empty()) return false;
  _lower.assign(text.data(), text.size());
  lowercaseInPlace(_lower);
  return keys.count(_lower) != 0;
}
