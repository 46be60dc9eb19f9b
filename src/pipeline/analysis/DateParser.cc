#include "pipeline/analysis/DateParser.h"

#include <cstring>

#include "util/Logger.h"

namespace {

Logger gLogger("DateParser");

const Str kEmpty;

}  // namespace

DateParser::DateParser(bool useCaches) : _useCaches(useCaches) {}

DateParser::~DateParser() = default;

void DateParser::loadRegexes(const Str& pathOrMode) {
  if (pathOrMode == "CURRENT") {
    _mode = MODE_CURRENT;
    return;
  }
  if (pathOrMode == "NONE") {
    _mode = MODE_NONE;
    return;
  }
  loadPatterns(DatePatternSet::get(pathOrMode));
}

void DateParser::loadPatterns(const std::shared_ptr<const DatePatternSet>& patterns) {
  _patterns = patterns;
  _timeList.setPatterns(&_patterns->timePatterns());
  _dateList.setPatterns(&_patterns->datePatterns());
  _mode = MODE_REGEXES;
  reset();
}

void DateParser::setDateLookahead(int chars) { _lookahead = chars < 0 ? -1 : chars; }

void DateParser::setTimePrefix(const Str& regex) {
  if (regex.empty()) {
    _timePrefix.reset();
    return;
  }
  auto re = std::make_unique<RE>(regex);
  if (!re->error().empty()) throw DateParseException("Invalid TIME_PREFIX '" + regex + "': " + re->error());
  _timePrefix = std::move(re);
}

void DateParser::setTimeFormat(const Str& format) {
  if (format.empty())
    _timeFormat.reset();
  else
    _timeFormat = std::make_unique<TimeFormat>(format);
}

void DateParser::setMinMaxDiffSecs(int ago, int hence) {
  if (ago > 0) _maxDiffSecsAgo = ago;
  if (hence > 0) _maxDiffSecsHence = hence;
}

void DateParser::setMinMaxDays(int ago, int hence) {
  gLogger.info("Setting maxDaysAgo=%d and maxDaysHence=%d", ago, hence);
  _guesser.setMinMaxDays(ago, hence);
}

void DateParser::setTZ(const Str& name) {
  if (_guesser.setTZ(name))
    gLogger.info("Set timezone to: %s", name.c_str());
  else
    gLogger.warn("Invalid TZ string: %s", name.c_str());
}

void DateParser::reset() {
  _timeList.reset();
  _dateList.reset();
  _haveCachedDate = false;
  _cachedDateBinding = -1;
  _missCount = 0;
  _meanGap = 0;
}

const Str& DateParser::getPatternName(const RegexBinding* binding) { return binding ? binding->name() : kEmpty; }

const Str& DateParser::lastTimePatternName() const {
  return _timeList.lastBinding < 0 ? kEmpty : _timeList.pattern(_timeList.lastBinding)->name();
}

const Str& DateParser::lastDatePatternName() const {
  return _dateList.lastBinding < 0 ? kEmpty : _dateList.pattern(_dateList.lastBinding)->name();
}

bool DateParser::prefixOf(const StrSegment& text, StrSegment& out) const {
  out = text;
  if (_timePrefix) {
    int consumed = 0;
    if (!_timePrefix->DoMatch(StringPiece(text.data(), text.size()), RE::UNANCHORED, &consumed, nullptr, 0))
      return false;
    out.remove_prefix(static_cast<size_t>(consumed));
  }
  return !out.empty();
}

bool DateParser::getMatch(DateTimeRegexList& list, const StrSegment& whole, DateTimeRegexList::ParseState& state,
                          bool quick) {
  StrSegment text(whole);
  list.refused = false;
  if (_lookahead >= 0 && text.size() > static_cast<size_t>(_lookahead)) text = StrSegment(text.data(), _lookahead);

  int best = -1;
  int bestIndex = -1;
  DateTimeRegexList::ParseState candidate;
  const int last = _useCaches ? list.lastBinding : -1;
  if (last >= 0) {
    const int score = list.tryPattern(static_cast<size_t>(last), text, candidate);
    const bool matched = score >= 0;
    const size_t length = candidate.end - candidate.begin;
    if (quick && list.runCount >= 11) {
      if (!matched) return false;
      if (length == list.lastLength) {
        state = candidate;
        return true;
      }
      ++_missCount;
      return false;
    }
    if (matched) {
      best = score;
      bestIndex = last;
      state = candidate;
      list.lastLength = length;
      if (list.runCount > 10) return true;
      ++list.runCount;
    } else if (!quick) {
      list.runCount = 0;
    }
  }

  for (size_t i = 0; i < list.size(); ++i) {
    if (static_cast<int>(i) == last) continue;
    const int score = list.tryPattern(i, text, candidate);
    if (score > best) {
      if (list.valid(candidate, *this)) {
        best = score;
        bestIndex = static_cast<int>(i);
        state = candidate;
      } else {
        list.refused = true;
      }
    }
  }
  if (bestIndex < 0) return false;
  if (bestIndex != list.lastBinding) {
    list.lastBinding = bestIndex;
    list.runCount = 1;
    list.lastLength = state.end - state.begin;
  }
  return true;
}

bool DateParser::dateFitsWindow(const TimeFormatRawParseResult& date) {
  TimeFormatRawParseResult p = _pendingTime;
  p.mergeIn(date);
  Timeval t;
  ExtraTimevalParseInfo extra;
  if (!t.set(p, _guesser, &extra)) return false;
  return _guesser.withinDateWindow(t.sec());
}

bool DateParser::cachedDateStands(const StrSegment& text) const {
  if (!_haveCachedDate || _dateList.lastBinding != _cachedDateBinding) return false;
  if (_cachedDateOffset + _cachedDateLength > text.size()) return false;
  return std::memcmp(text.data() + _cachedDateOffset, _cachedDateText, _cachedDateLength) == 0;
}

void DateParser::cacheDate(const DateTimeRegexList::ParseState& date, const StrSegment& text) {
  const size_t length = date.end - date.begin;
  if (length > sizeof _cachedDateText || date.end > text.size()) {
    _haveCachedDate = false;
    return;
  }
  _cachedDate.clear();
  const uint32_t dateBits = TimeFormatRawParseResult::HAVE_YEAR | TimeFormatRawParseResult::HAVE_CENTURY |
                            TimeFormatRawParseResult::HAVE_YEAR_IN_CENTURY | TimeFormatRawParseResult::HAVE_MONTH |
                            TimeFormatRawParseResult::HAVE_MDAY | TimeFormatRawParseResult::HAVE_YDAY;
  _cachedDate = date.parse;
  _cachedDate.have &= dateBits;
  _cachedDateBinding = _dateList.lastBinding;
  _cachedDateOffset = date.begin;
  _cachedDateLength = length;
  std::memcpy(_cachedDateText, text.data() + date.begin, length);
  _haveCachedDate = true;
}

void DateParser::finishEvent(const Timeval& out, const ExtraTimevalParseInfo& extra) {
  if (_useCaches && _lastTime.sec() != 0 && out > _lastTime)
    _meanGap = (out.sec() - _lastTime.sec() + 2 * _meanGap) / 3;
  _lastTime = out;
  _lastExtra = extra;
  _lastExtraValid = true;
}

bool DateParser::dateTimeFromString(Timeval& out, const StrSegment& whole, ExtraTimevalParseInfo& extra) {
  StrSegment text;
  if (!prefixOf(whole, text)) return false;

  if (_timeFormat && out.parse(text.begin(), text.end(), *_timeFormat, _guesser, &extra)) {
    finishEvent(out, extra);
    return true;
  }

  for (int attempt = 0; attempt < 2; ++attempt) {
    DateTimeRegexList::ParseState time;
    if (!getMatch(_timeList, text, time, false)) return false;
    TimeFormatRawParseResult p = time.parse;

    if (!(p.have & TimeFormatRawParseResult::HAVE_UTCEPOCH)) {
      if (_useCaches && _meanGap <= 599 && (p.have & TimeFormatRawParseResult::HAVE_MINUTE) &&
          (p.have & TimeFormatRawParseResult::HAVE_HOUR24) && cachedDateStands(text)) {
        TimeFormatRawParseResult merged = p;
        merged.mergeIn(_cachedDate);
        if (out.set(merged, _guesser, &extra)) {
          finishEvent(out, extra);
          return true;
        }
        reset();
        _meanGap = 600;
        continue;
      }
      _pendingTime = p;
      DateTimeRegexList::ParseState date;
      if (getMatch(_dateList, text, date, false)) {
        p.mergeIn(date.parse);
        if (_useCaches) cacheDate(date, text);
      } else if (_dateList.refused) {
        // The line states a date we cannot take; guessing one would put the
        // event on a day the text contradicts.
        return false;
      }
    }

    if (!out.set(p, _guesser, &extra) || !_guesser.withinDateWindow(out.sec())) {
      reset();
      return false;
    }
    finishEvent(out, extra);
    return true;
  }
  return false;
}

bool DateParser::parseDate(Timeval& out, const StrSegment& text, const Timeval& reference,
                           ExtraTimevalParseInfo& extra) {
  if (_mode == MODE_NONE) return false;
  if (_mode == MODE_CURRENT) {
    out.setToNow();
    extra = ExtraTimevalParseInfo();
    extra.precision = -3;
    return true;
  }
  _guesser.setNow(reference.sec());
  if (dateTimeFromString(out, text, extra)) return true;
  if (_lastTime.sec() == 0 || !_lastExtraValid) return false;
  out = _lastTime;
  extra = _lastExtra;
  return true;
}

bool DateParser::hasTime(const StrSegment& line) {
  if (_mode == MODE_CURRENT) return true;
  if (_mode == MODE_NONE) return false;
  const bool quick = _missCount <= 9;
  StrSegment text;
  if (!prefixOf(line, text)) return false;
  const int timeBefore = _timeList.lastBinding;
  const int dateBefore = _dateList.lastBinding;

  DateTimeRegexList::ParseState time;
  if (!getMatch(_timeList, text, time, quick)) return false;
  if (time.parse.have & TimeFormatRawParseResult::HAVE_UTCEPOCH) return true;
  _pendingTime = time.parse;
  DateTimeRegexList::ParseState date;
  if (!getMatch(_dateList, text, date, quick)) return false;

  if (quick && _lastTime.sec() != 0) {
    TimeFormatRawParseResult p = time.parse;
    p.mergeIn(date.parse);
    Timeval t;
    ExtraTimevalParseInfo extra;
    if (t.set(p, _guesser, &extra)) {
      const int64_t delta = t.sec() - _lastTime.sec();
      if ((delta < -static_cast<int64_t>(_maxDiffSecsAgo) || delta > _maxDiffSecsHence) &&
          (_timeList.lastBinding != timeBefore || _dateList.lastBinding != dateBefore)) {
        ++_missCount;
        return false;
      }
    }
  }
  return true;
}

void DateParser::setDateByString(const StrSegment& text) {
  if (_mode != MODE_REGEXES || text.empty()) return;
  _pendingTime.clear();
  DateTimeRegexList::ParseState date;
  if (!getMatch(_dateList, text, date, false)) {
    _dateList.reset();
    return;
  }
  Timeval t;
  ExtraTimevalParseInfo extra;
  if (!t.set(date.parse, _guesser, &extra)) return;
  _guesser.setDate(extra.year, extra.month, extra.mday);
  _dateList.reset();
}
