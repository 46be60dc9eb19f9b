#include "pipeline/analysis/Aggregator.h"

#include <cstring>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/analysis/RulesDB.h"
#include "util/Logger.h"

static Logger gLogger("AggregatorMiningProcessor");

namespace {

// A line longer than this that does not start with white space always
// starts an event when the learned rules decide.
constexpr uint32_t kLongLine = 80;

inline bool startsWithSpace(const char* line, size_t len) {
  unsigned char c = len ? static_cast<unsigned char>(line[0]) : 0;
  return c == ' ' || (c >= '\t' && c <= '\r');
}

template <class T>
void readNumber(const PropertiesMap& map, const Str& conf, const char* key, T& value) {
  if (PropertyPages::layeredFind(key, map, value)) return;
  const char* text = PropertyPages::layeredFind(key, map);
  if (text && *text)
    gLogger.warn("Invalid value for %s in %s: \"%s\", using %lld", key, conf.c_str(), text, (long long)value);
}

void readBool(const PropertiesMap& map, const char* key, bool& value) {
  bool v;
  if (PropertyPages::layeredFind(key, map, v)) value = v;
}

}  // namespace

Aggregator::Aggregator(const Str& conf) : _conf(conf), _dateParser(true) { readSettings(); }

Aggregator::~Aggregator() = default;

std::unique_ptr<RE> Aggregator::compile(const char* key, const Str& value) {
  if (value.empty()) return nullptr;
  auto re = std::make_unique<RE>(std::string(value));
  if (!re->error().empty()) {
    gLogger.error("Invalid regex for %s in %s: \"%s\": %s; the setting is ignored", key, _conf.c_str(),
                  value.c_str(), re->error().c_str());
    return nullptr;
  }
  return re;
}

void Aggregator::readSettings() {
  gLogger.info("Setting up line merging apparatus for: %s", _conf.c_str());
  PropertiesMap map;
  PropertyPages::propsInstance().fillLayers(map, _conf, true);

  readBool(map, "SHOULD_LINEMERGE", _shouldLineMerge);
  readBool(map, "AUTO_LINEMERGE", _autoLineMerge);
  readBool(map, "BREAK_BEFORE_DATE", _breakBeforeDate);
  readBool(map, "BREAK_ONLY_BEFORE_DATE", _breakOnlyBeforeDate);
  readBool(map, "INDEX_DATE_ELEMENTS", _indexDateElements);
  readNumber(map, _conf, "MAX_EVENTS", _maxEvents);

  Str text;
  auto pattern = [&](const char* key) {
    text.clear();
    PropertyPages::layeredFind(key, map, text);
    return compile(key, text);
  };
  _breakOnlyBefore = pattern("BREAK_ONLY_BEFORE");
  _mustBreakBefore = pattern("MUST_BREAK_BEFORE");
  _mustBreakAfter = pattern("MUST_BREAK_AFTER");
  _mustNotBreakBefore = pattern("MUST_NOT_BREAK_BEFORE");
  _mustNotBreakAfter = pattern("MUST_NOT_BREAK_AFTER");

  // Date patterns: a path under etc unless absolute, or a mode word.
  Str dates = "datetime.xml";
  PropertyPages::layeredFind("DATETIME_CONFIG", map, dates);
  if (dates != "CURRENT" && dates != "NONE" && !dates.empty() && dates[0] != '/') {
    Str path = LoaderInfo::getInstance().getCommonConfigPath();
    path += '/';
    path += dates;
    dates = path;
  }
  try {
    _dateParser.loadRegexes(dates);
  } catch (const std::exception& e) {
    gLogger.error("Cannot load date patterns %s for %s: %s; events get the time of their input or the clock",
                  dates.c_str(), _conf.c_str(), e.what());
    try {
      _dateParser.loadRegexes("NONE");
    } catch (const std::exception&) {
    }
  }

  // The window of believable dates. The MAX_DIFF_SECS pair goes to the same
  // call after the MAX_DAYS pair, so it replaces it and counts in days; its
  // default of -1 opens the window wide.
  int daysAgo = 1825, daysHence = 7, diffAgo = -1, diffHence = -1, lookahead = 150;
  readNumber(map, _conf, "MAX_DAYS_AGO", daysAgo);
  readNumber(map, _conf, "MAX_DAYS_HENCE", daysHence);
  readNumber(map, _conf, "MAX_DIFF_SECS_AGO", diffAgo);
  readNumber(map, _conf, "MAX_DIFF_SECS_HENCE", diffHence);
  readNumber(map, _conf, "MAX_TIMESTAMP_LOOKAHEAD", lookahead);
  _dateParser.setMinMaxDays(daysAgo, daysHence);
  _dateParser.setMinMaxDays(diffAgo, diffHence);
  _dateParser.setDateLookahead(lookahead);

  text.clear();
  if (PropertyPages::layeredFind("TIME_PREFIX", map, text)) {
    try {
      _dateParser.setTimePrefix(text);
    } catch (const std::exception& e) {
      gLogger.error("Invalid regex for TIME_PREFIX in %s: \"%s\": %s; the setting is ignored", _conf.c_str(),
                    text.c_str(), e.what());
    }
  }
  text.clear();
  if (PropertyPages::layeredFind("TIME_FORMAT", map, text)) _dateParser.setTimeFormat(text);
  text.clear();
  if (PropertyPages::layeredFind("TZ", map, text)) _dateParser.setTZ(text);
}

bool Aggregator::hasPattern(const char* key) const {
  if (!strcmp(key, "BREAK_ONLY_BEFORE")) return bool(_breakOnlyBefore);
  if (!strcmp(key, "MUST_BREAK_BEFORE")) return bool(_mustBreakBefore);
  if (!strcmp(key, "MUST_BREAK_AFTER")) return bool(_mustBreakAfter);
  if (!strcmp(key, "MUST_NOT_BREAK_BEFORE")) return bool(_mustNotBreakBefore);
  if (!strcmp(key, "MUST_NOT_BREAK_AFTER")) return bool(_mustNotBreakAfter);
  return false;
}

bool Aggregator::matches(const std::unique_ptr<RE>& re, const StrSegment& line) {
  return re && re->PartialMatch(StringPiece(line.data(), line.size()));
}

void Aggregator::finishEvent() {
  if (_event && _lineCount > 1) _event->put(PipelineData::rawKey, std::move(_joined));
  _joined.clear();
}

std::shared_ptr<PipelineData> Aggregator::takeEvent() {
  finishEvent();
  std::shared_ptr<PipelineData> out = std::move(_event);
  _event.reset();
  if (out && looksBlank(StrSegment(out->getStr(PipelineData::rawKey)))) {
    _blankLinesDropped += _lineCount;
    out.reset();
  }
  _lineCount = 0;
  return out;
}

std::shared_ptr<PipelineData> Aggregator::processLine(const std::shared_ptr<PipelineData>& record) {
  if (!_shouldLineMerge) return record;
  if (!record) return takeEvent();

  const Str& raw = record->getStr(PipelineData::rawKey);
  const StrSegment line(raw.data(), raw.size());
  const bool isBreak = breaksBefore(line);
  if (!isBreak && _event) {
    if (_lineCount == 1) _joined = _event->getStr(PipelineData::rawKey);
    _joined += '\n';
    _joined.append(raw.data(), raw.size());
    _event->mergeFrom(*record);
    ++_lineCount;
    return nullptr;
  }

  std::shared_ptr<PipelineData> out = takeEvent();
  _event = record;
  _lineCount = 1;
  return out;
}

namespace {

// Whether two parses give the same date terms from the hour on (seconds
// and subseconds aside).
bool sameTerms(const ExtraTimevalParseInfo& a, const ExtraTimevalParseInfo& b) {
  return a.precision == b.precision && a.minute == b.minute && a.hour == b.hour && a.mday == b.mday &&
         a.month == b.month && a.year == b.year && a.wday == b.wday && a.zoneKnown == b.zoneKnown &&
         a.zoneOffset == b.zoneOffset;
}

// Appends v in decimal, with a '-' when negative ("%d").
void appendInt(Str& out, int v) {
  char buf[16];
  char* e = buf + sizeof buf;
  char* b = e;
  unsigned u = v < 0 ? 0u - unsigned(v) : unsigned(v);
  do {
    *--b = char('0' + u % 10);
    u /= 10;
  } while (u);
  if (v < 0) *--b = '-';
  out.append(b, size_t(e - b));
}

}  // namespace

const Str& Aggregator::dateTerms(const ExtraTimevalParseInfo& info) {
  // The subsecond and second terms come first and change from event to
  // event; the terms after them change from minute to minute at most. Those
  // are kept: they are the whole text of the same time known to the minute,
  // and are made again only when it changes.
  ExtraTimevalParseInfo rest = info;
  if (rest.precision >= 0) rest.precision = -1;
  if (!_haveTerms || !sameTerms(rest, _termsInfo)) {
    _tail.clear();
    PipelineData::appendMetaTimeInfo(&rest, _tail);
    _termsInfo = rest;
    _haveTerms = true;
  }
  if (info.precision < 0) return _tail;
  _terms.clear();
  const size_t digits = info.precision > 0 ? strnlen(info.subsecond, sizeof info.subsecond) : 0;
  if (digits > 0) {
    _terms += "_subsecond:.";
    _terms.append(info.subsecond, digits);
    _terms += ' ';
  }
  _terms += "date_second::";
  appendInt(_terms, info.second);
  _terms += ' ';
  _terms += _tail;
  return _terms;
}

bool Aggregator::takeText(Str& event) {
  const bool had = _haveText;
  _haveText = false;
  if (had && looksBlank(StrSegment(_text.data(), _text.size()))) {
    _blankLinesDropped += _lineCount;
    _lineCount = 0;
    return false;
  }
  _lineCount = 0;
  if (!had) return false;
  // The caller's old buffer becomes the next event's.
  event.swap(_text);
  return true;
}

bool Aggregator::processText(const StrSegment* line, Str& event) {
  if (!_shouldLineMerge) {
    if (!line) return false;
    event.assign(line->data(), line->size());
    return true;
  }
  if (!line) return takeText(event);
  if (!breaksBefore(*line) && _haveText) {
    _text += '\n';
    _text.append(line->data(), line->size());
    ++_lineCount;
    return false;
  }
  const bool out = takeText(event);
  _text.assign(line->data(), line->size());
  _haveText = true;
  _lineCount = 1;
  return out;
}

bool Aggregator::breaksBefore(const StrSegment& line) {
  bool isBreak = true;
  if (_afterState != 0) {
    isBreak = _afterState == 1;
  } else if (_lineCount > _maxEvents) {
    _dateParser.reset();
    if (!_seenBreak) {
      // Dates never broke this stream: stop waiting for them.
      _breakOnlyBeforeDate = false;
      _breakBeforeDate = false;
      _autoLineMerge = true;
    }
  } else if (_breakOnlyBefore) {
    isBreak = matches(_breakOnlyBefore, line);
  } else if (_breakOnlyBeforeDate) {
    isBreak = _dateParser.hasTime(line);
  } else if (_breakBeforeDate && _dateParser.hasTime(line)) {
    isBreak = true;
  } else if (matches(_mustBreakBefore, line)) {
    isBreak = true;
  } else if (matches(_mustNotBreakBefore, line)) {
    isBreak = false;
  } else if (!_autoLineMerge) {
    isBreak = true;
  } else {
    isBreak = shouldBreak(line.data(), line.size());
  }

  if (matches(_mustBreakAfter, line))
    _afterState = 1;
  else if (matches(_mustNotBreakAfter, line))
    _afterState = -1;
  else if (_afterState == 1)
    _afterState = 0;

  if (isBreak) _seenBreak = true;
  return isBreak;
}

bool Aggregator::shouldBreak(const char* line, size_t len) {
  char shape[LineShape::kMaxShape];
  size_t n = LineShape::normalize(line, len, shape);
  updateStats(std::string_view(shape, n));

  char key[2 * LineShape::kMaxShape];
  memcpy(key, _prevShape, _prevShapeLen);
  memcpy(key + _prevShapeLen, shape, n);
  bool brk = true;
  RulesDB::instance().lookupBreak(std::string_view(key, _prevShapeLen + n), brk);

  memcpy(_prevShape, shape, n);
  _prevShapeLen = n;
  if (uint32_t(len) > kLongLine && !startsWithSpace(line, len)) return true;
  return brk;
}

void Aggregator::updateStats(std::string_view shape) {
  const std::string_view prev(_prevShape, _prevShapeLen);
  char keyBuf[2 * LineShape::kMaxShape];
  memcpy(keyBuf, prev.data(), prev.size());
  memcpy(keyBuf + prev.size(), shape.data(), shape.size());
  const std::string_view key(keyBuf, prev.size() + shape.size());

  CurrentLineData& cur = _currentLines.findOrAddCurrentLineData(prev, shape);
  const uint32_t joint = _jointCounts.findOrAddCount(key);
  const uint32_t n1 = cur.count;
  const uint32_t n2 = _currentLines.getCurrentLineDataCount(shape);
  if (n1 < 2 || n2 < 2) return;

  // Whole numbers on purpose: 0 for a rare pair, at least 1 for a frequent one.
  const uint32_t ratio = joint / n2;
  const uint32_t followers = cur.numFollowers;
  if (followers < 10) {
    addRule(key, false, 100.0 / followers);
  } else if (ratio > 0.3) {
    addRule(key, false, ratio);
  } else if (followers <= 50) {
    if (ratio < 0.0005) addRule(key, true, 100.0 - ratio);
  } else {
    addRule(key, true, followers);
    CurrentLineDataHash::giveUp(cur);
  }
}

void Aggregator::addRule(std::string_view key, bool brk, double weight) {
  RulesDB::instance().addRule(key, brk, weight);
}
