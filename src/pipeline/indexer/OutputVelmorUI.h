// OutputVelmorUI: the "OUTPUT" module "velmorui::<version>": writes what a
// query found (its messages, the fetched events and lists, the first ids)
// as XML into the query's result document (Query::output()), between the
// frame that executeQuery writes.
//
// The version picks the writer: "2.1" OutputVelmorUI21, "2.2"
// OutputVelmorUI22; any other fails with "Unsupported version <v>
// requested ". A query without a "SEARCH" section fails with "Unable to
// output because no SEARCH was specified".
//
// Arguments:
//   format     how event text is cut into <sg> segments: "raw" (default: the
//              text alone, escaped), "outer" (each whole term between major
//              breakers), "inner" (each piece between minor breakers), "all"
//              (terms with their pieces nested inside); else "Unknown format
//              : <f>". The segmenter is the index's "SEGMENTATION" stanza.
//   idcount    the first N ids found are listed in an <ids> block (default 0).
//   maxlines   each event's text stops after N lines (default -1: all).
//   timeformat strftime format of event times, local time (default
//              "%m/%d/%Y:%H:%M:%S").
//
// Segment classes (the "c" of <sg>), fixed so that style sheets can rely on
// them:
//   1 a whole term (between major breakers)
//   2 a piece of a term (between minor breakers)
//   3 ("all" only) a run of pieces from the start of a term, between 1 and 2
//   4 the event's time, 5 its host, 6 its source, 7 its source type (<meta>)
// A segment whose lowercased text is a term of the search (the state
// machine's key set) carries h="1"; a host, source or source type does when
// "host::<value>" (and so on) is. Meta segments of host, source and source
// type carry override="+<key>::<value>", the term that narrows the search
// to it (the value in double quotes when it holds blanks).
//
// Document order: a "message" block when the query holds messages
// (<msg type="LEVEL">text</msg>, levels in name order), the events, the
// lists in the order hosts, sources, sourcetypes, types, eventtags,
// hosttags, formats, then any other kind by name, then the ids. All text is
// XML-escaped; bytes XML cannot carry are dropped.
//
// Ownership: the module writes to the query's stream, which it does not own.
// Threads: the thread running the query.
#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "framework/PipelineData.h"
#include "pipeline/indexer/Module.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class GenericCleaner;

class OutputVelmorUI : public Module {
 public:
  static constexpr unsigned long kClassTerm = 1;
  static constexpr unsigned long kClassPiece = 2;
  static constexpr unsigned long kClassRun = 3;
  static constexpr unsigned long kClassTime = 4;
  static constexpr unsigned long kClassHost = 5;
  static constexpr unsigned long kClassSource = 6;
  static constexpr unsigned long kClassSourceType = 7;

  enum Format { kRaw, kAll, kInner, kOuter };

  OutputVelmorUI(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name);
  ~OutputVelmorUI() override;

  // Picks the writer by version and runs it. Throws QueryException.
  void runModule() override;

 protected:
  // Checks the query, reads the arguments and writes the document through
  // the version's hooks below. Throws QueryException.
  void write();

  // --- the version's hooks (the base class itself writes no version) ------------
  virtual void writeEvents(const std::vector<std::shared_ptr<PipelineData>>&) {}
  virtual void writeList(const Str&, const std::vector<std::shared_ptr<PipelineData>>&) {}

  // --- helpers for the versions ------------------------------------------------
  // Lines of an event's whole text (newlines + 1).
  static long lineCount(const Str& raw);
  // Appends the event text: cut at maxlines, segmented by the format,
  // escaped.
  void appendEventText(const Str& raw);
  // Appends <sg> elements of the event's time, host, source and source type,
  // each followed by a blank (dumpEventMetaData).
  void dumpEventMetaData(const PipelineData& event);
  // The event's time in the display format.
  Str formatTime(const PipelineData& event) const;
  // " rel=\"%f\"" when the query is scored and the event has a score.
  void appendRelevance(const Str& cd);
  // Appends text escaped as element text (quotes false) or attribute value.
  void appendEscaped(const StrSegment& text, bool quotes = false);
  // Is the text (lowercased) a term of the search?
  bool isSearchTerm(const StrSegment& text);
  // Writes the buffer to the stream when it holds more than `atLeast` bytes.
  void flush(size_t atLeast = 0);

  Str _out;  // the document being written; flushed in pieces
  Format _format = kRaw;
  long _idCount = 0;
  long _maxLines = -1;
  Str _timeFormat;

 private:
  struct Segment {
    size_t start;
    size_t end;
  };
  void openSegment(const StrSegment& text, unsigned long cls);
  void appendSegmented(const StrSegment& text);
  void writeMessages();
  void writeIds();

  FILE* _stream = nullptr;
  const GenericCleaner* _cleaner = nullptr;
  std::vector<Segment> _segments;  // scratch of appendSegmented
  std::vector<Segment> _open;      // scratch of appendSegmented
  Str _lower;                      // scratch of isSearchTerm
  Str _term;                       // scratch of dumpEventMetaData
};
