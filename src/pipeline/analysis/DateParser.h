// DateParser: finds the time of an event in its text, with the ordered date
// and time patterns of a datetime.xml, and guesses what the text leaves out
// (year, date, zone) through its DateParserGuesser.
//
// One per stream: it keeps state from event to event, since the next event
// usually looks like the last - the pattern that matched last is tried
// first, after 11 hits in a row hasTime() trusts it alone, and the date is
// reused while events come less than ten minutes apart and the date text
// stands unchanged. An event with no time of its own takes the time of the
// event before it.
//
// The compiled patterns are shared with every other parser of the same file
// (DatePatternSet); everything else belongs to this object.
// Threads: one thread at a time; no lock.
#pragma once

#include <memory>

#include "pipeline/analysis/DateParseException.h"
#include "pipeline/analysis/DateParserGuesser.h"
#include "pipeline/analysis/DatePatternSet.h"
#include "pipeline/analysis/DateRegexList.h"
#include "pipeline/analysis/TimeRegexList.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/RE.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/TimeFormat.h"
#include "util/Timeval.h"

class DateParser {
 public:
  enum Mode { MODE_NONE = 0, MODE_REGEXES = 1, MODE_CURRENT = 2 };

  explicit DateParser(bool useCaches);
  ~DateParser();
  DateParser(const DateParser&) = delete;
  DateParser& operator=(const DateParser&) = delete;

  // A datetime.xml path, or "CURRENT" (every event gets the clock) or "NONE"
  // (no time from text). throws DateParseException.
  void loadRegexes(const Str& pathOrMode);
  // The same with an already compiled set (mode 1).
  void loadPatterns(const std::shared_ptr<const DatePatternSet>& patterns);
  int mode() const { return _mode; }

  void setDateLookahead(int chars);  // negative: no limit
  int dateLookahead() const { return _lookahead; }
  // Empty: none. throws DateParseException on a bad regex.
  void setTimePrefix(const Str& regex);
  void setTimeFormat(const Str& format);  // empty: none
  void setMinMaxDiffSecs(int ago, int hence);  // only positive values are taken
  void setMinMaxDays(int ago, int hence);
  void setTZ(const Str& name);
  // A date in `text` (such as a dated file name) becomes the date of lines
  // that carry only a time.
  void setDateByString(const StrSegment& text);
  // Forgets the patterns that matched last, the cached date and the miss
  // count; the last event's time stays.
  void reset();

  // The time of `text`, or of the event before it; false when there is
  // neither. `reference` is the reader's "now" for guessing.
  bool parseDate(Timeval& out, const StrSegment& text, const Timeval& reference, ExtraTimevalParseInfo& extra);
  // Whether `line` starts an event by carrying a date and time (see the
  // class comment for the shortcuts).
  bool hasTime(const StrSegment& line);

  // The name of the define behind a pattern; "" for null.
  static const Str& getPatternName(const RegexBinding* binding);
  // The patterns that matched last ("" when none).
  const Str& lastTimePatternName() const;
  const Str& lastDatePatternName() const;

  DateParserGuesser& guesser() { return _guesser; }
  int missCount() const { return _missCount; }
  int64_t meanGap() const { return _meanGap; }

  // For DateRegexList::valid: does `date`, with the time being parsed,
  // make a time inside the date window?
  bool dateFitsWindow(const TimeFormatRawParseResult& date);

 private:
  bool prefixOf(const StrSegment& text, StrSegment& out) const;
  bool getMatch(DateTimeRegexList& list, const StrSegment& text, DateTimeRegexList::ParseState& state, bool quick);
  bool dateTimeFromString(Timeval& out, const StrSegment& text, ExtraTimevalParseInfo& extra);
  void finishEvent(const Timeval& out, const ExtraTimevalParseInfo& extra);
  bool cachedDateStands(const StrSegment& text) const;
  void cacheDate(const DateTimeRegexList::ParseState& date, const StrSegment& text);

  int _mode = MODE_NONE;
  std::shared_ptr<const DatePatternSet> _patterns;
  DateRegexList _dateList;
  TimeRegexList _timeList;
  std::unique_ptr<RE> _timePrefix;
  std::unique_ptr<TimeFormat> _timeFormat;
  int _lookahead = -1;
  int _missCount = 0;
  int _maxDiffSecsAgo = 3600;
  int _maxDiffSecsHence = 604800;
  bool _useCaches;

  // The date of a recent event, the bytes it was read from and where.
  bool _haveCachedDate = false;
  TimeFormatRawParseResult _cachedDate;
  int _cachedDateBinding = -1;
  size_t _cachedDateOffset = 0;
  size_t _cachedDateLength = 0;
  char _cachedDateText[64] = {};
  int64_t _meanGap = 0;

  // The time of day being parsed, for the date list's validity check.
  TimeFormatRawParseResult _pendingTime;

  DateParserGuesser _guesser;
  Timeval _lastTime;
  ExtraTimevalParseInfo _lastExtra;
  bool _lastExtraValid = false;
};
