// TailCommand: `velmor tail '<search>'`: prints events that match as they
// are indexed, until interrupted (SIGINT or SIGTERM end it with status 0)
// or until --max-events have been printed.
//
// With --server it reads the service's live tail (/services/streams/tail,
// one JSON object per line, a lone newline as keep-alive); a service that
// goes quiet for 35 s (no event and no keep-alive) or closes the stream
// ends the command with status 1 and 0 respectively.
//
// In this process it polls the indexes of VELMOR_HOME every --interval
// seconds (0.5): each poll opens the indexes afresh (a read-only opening
// keeps the view it had), runs the search over the last --window (one
// hour) and shows the events whose address in their bucket lies beyond
// what earlier polls saw (TailCursor). With --earliest the first poll
// starts there and its events are shown; else the first poll only marks
// what is already indexed. See TailCursor.h for the limits.
//
// The search must start with `search` (or with terms) and may go on only
// with commands that work event by event; others fail the command (1).
//
// Used once, on the main thread; installs its own SIGINT/SIGTERM handlers.
#pragma once

#include <cstdint>

#include "tools/velmor/CliOptions.h"
#include "tools/velmor/RowsPrinter.h"

class EventPrinter;

class TailCommand {
 public:
  explicit TailCommand(const CliOptions& o) : _o(o) {}
  int run();

 private:
  int runLocal();
  int runServer();
  // Whether -n/--max-events is reached after one more event.
  bool printedOne();

  const CliOptions& _o;
  RowsPrinter::Mode _mode = RowsPrinter::kTable;
  int64_t _earliest = 0;  // 0: only new events
  long _printed = 0;
  Str _text;
};
