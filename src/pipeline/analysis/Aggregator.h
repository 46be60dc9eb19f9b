// Aggregator: merges the lines of one stream into events, by the rules of
// the stream's props stanzas (found with the stream's `_conf` path, so a
// stanza of its source beats one of its host, which beats one of its source
// type; pattern stanzas apply).
//
// processLine() takes one line record at a time and gives back a finished
// event, or null while an event is still growing; a null record flushes the
// open event. A line breaks (starts a new event) as the settings say:
//
//   SHOULD_LINEMERGE = false   every line is an event
//   BREAK_ONLY_BEFORE = re     only a line matching re breaks
//   BREAK_ONLY_BEFORE_DATE     only a line holding a date breaks
//   otherwise                  a dated line breaks (BREAK_BEFORE_DATE),
//                              MUST_BREAK_BEFORE / MUST_NOT_BREAK_BEFORE
//                              decide, then the learned rules of line
//                              shapes (AUTO_LINEMERGE), else it breaks
//   MUST_BREAK_AFTER = re      the line after a match breaks
//   MUST_NOT_BREAK_AFTER = re  lines after a match join until
//                              MUST_BREAK_AFTER matches
//   MAX_EVENTS = n             an event of more than n lines is cut
//
// A joined line adds "\n" and its text to the event's `_raw`, and its other
// keys replace the event's (so the event carries the last line's file
// position). An event of nothing but white space is dropped.
//
// The Aggregator also holds the stream's DateParser, which AggregatorProcessor
// uses to give finished events their time.
//
// Ownership: one per stream, owned by AggregatorProcessor. Threads: its
// pipeline's thread only; the shared RulesDB has its own lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "framework/PipelineData.h"
#include "pipeline/analysis/CurrentLineDataHash.h"
#include "pipeline/analysis/DateParser.h"
#include "pipeline/analysis/JointLineCountHash.h"
#include "pipeline/analysis/LineShape.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/RE.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class Aggregator {
 public:
  // Reads the props of `conf` (a "|"-separated stanza path) and sets up the
  // date parser. A setting that cannot be used (a bad regex, a bad number,
  // unreadable date patterns) is logged and left at its default.
  explicit Aggregator(const Str& conf);
  ~Aggregator();
  Aggregator(const Aggregator&) = delete;
  Aggregator& operator=(const Aggregator&) = delete;

  // A finished event, or null. REQUIRES: record is a line of this stream,
  // or null to flush.
  std::shared_ptr<PipelineData> processLine(const std::shared_ptr<PipelineData>& record);
  // The same for a stream whose lines carry nothing but their text (every
  // other key alike on all lines, as a file read by a tool): takes one line,
  // or a null line to flush, and returns true with the text of the finished
  // event in `event` when one is finished. The events and their texts are
  // exactly those of processLine. No record is made per line, and no
  // allocation once the buffers have grown. REQUIRES: this aggregator is
  // fed through processText only, never through processLine as well.
  bool processText(const StrSegment* line, Str& event);

  // The learned answer for a line (no date or regex settings involved):
  // true when it should start a new event.
  bool shouldBreak(const char* line, size_t len);
  // Counts `shape` after the previous line's shape and learns a rule for
  // the pair when the counts say so.
  void updateStats(std::string_view shape);
  // See RulesDB::addRule.
  static void addRule(std::string_view key, bool brk, double weight);
  static void normalize(const StrSegment& line, Str& out) { LineShape::normalize(line, out); }
  static bool looksBlank(const StrSegment& text) { return LineShape::looksBlank(text); }

  DateParser& dateParser() { return _dateParser; }
  // The date terms of a parsed time, as PipelineData::appendMetaTimeInfo
  // writes them; the terms from the hour on are kept, and made again only
  // when the time changes by a minute or more. The text stays valid until
  // the next call.
  const Str& dateTerms(const ExtraTimevalParseInfo& info);
  bool indexDateElements() const { return _indexDateElements; }
  const Str& conf() const { return _conf; }

  // Settings as read (for tests and diagnostics).
  bool shouldLineMerge() const { return _shouldLineMerge; }
  bool autoLineMerge() const { return _autoLineMerge; }
  bool breakOnlyBeforeDate() const { return _breakOnlyBeforeDate; }
  unsigned maxEvents() const { return _maxEvents; }
  uint32_t lineCount() const { return _lineCount; }
  // Lines of the events dropped for holding nothing but white space.
  uint64_t blankLinesDropped() const { return _blankLinesDropped; }
  bool hasPattern(const char* key) const;

 private:
  void readSettings();
  std::unique_ptr<RE> compile(const char* key, const Str& value);
  static bool matches(const std::unique_ptr<RE>& re, const StrSegment& line);
  // Puts the joined text into the open event (when lines were joined).
  void finishEvent();
  // Ends the open event and hands it out; null when there is none or it is
  // blank (a blank event is never indexed).
  std::shared_ptr<PipelineData> takeEvent();
  // Whether `line` starts a new event; keeps the state of the break rules
  // that look back at earlier lines.
  bool breaksBefore(const StrSegment& line);
  // takeEvent for processText: the open text into `event`, unless blank.
  bool takeText(Str& event);

  Str _conf;
  DateParser _dateParser;
  bool _indexDateElements = true;

  std::shared_ptr<PipelineData> _event;  // the event under construction
  Str _joined;                           // its text once a second line joined
  Str _text;                             // processText: the open event's text
  ExtraTimevalParseInfo _termsInfo;      // the time of _tail, to the minute
  Str _tail;                             // its date terms
  Str _terms;                            // subsecond and second terms, and _tail
  bool _haveTerms = false;
  bool _haveText = false;                // processText: an event is open
  uint32_t _lineCount = 0;
  uint64_t _blankLinesDropped = 0;
  unsigned _maxEvents = 512;
  bool _seenBreak = false;

  char _prevShape[LineShape::kMaxShape];
  size_t _prevShapeLen = 0;
  CurrentLineDataHash _currentLines;
  JointLineCountHash _jointCounts;

  bool _autoLineMerge = true;
  bool _breakBeforeDate = true;
  bool _breakOnlyBeforeDate = false;
  bool _shouldLineMerge = true;
  int _afterState = 0;  // 1: the next line breaks; -1: lines join; 0: neither

  std::unique_ptr<RE> _breakOnlyBefore;
  std::unique_ptr<RE> _mustBreakBefore;
  std::unique_ptr<RE> _mustBreakAfter;
  std::unique_ptr<RE> _mustNotBreakBefore;
  std::unique_ptr<RE> _mustNotBreakAfter;
};
