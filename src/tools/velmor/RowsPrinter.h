// RowsPrinter: the final rows of a search in the output form the user
// chose with -o:
//   table  events (rows with _raw) one per line through EventPrinter;
//          reports (rows without _raw) as an aligned table (TableWriter)
//   raw    events: _raw, one per line; reports: the values of a row
//          separated by tabs, one row per line, no header
//   json   the job results' JSON ("[\n\t{\n\t\t\"k\": \"v\" ...}\n]"), the
//          fields in order of first appearance; no rows: "[]"
//   csv    a header of field names, then a line per row (the result-file
//          dialect), the fields in order of first appearance
// Every form ends with a newline when it printed anything. Of the hidden
// fields (names starting with "_") only _raw and _time print; _cd,
// _serial and internal fields do not.
//
// Stateless; any thread.
#pragma once

#include "util/Str.h"

class EventPrinter;
class SearchResult;
class SearchResults;

class RowsPrinter {
 public:
  enum Mode { kTable, kRaw, kJson, kCsv };

  static bool parseMode(const Str& text, Mode& out);
  // Whether the rows are events: some row has a _raw.
  static bool areEvents(const SearchResults& rows);
  static Str format(const SearchResults& rows, Mode mode, const EventPrinter& events);
  // One row as a line of a live tail (with its newline): table: the event
  // line; raw: _raw; json: one object {"k":"v",...} with the public fields
  // in order of first appearance. REQUIRES: mode is not kCsv.
  static Str line(const SearchResults& rows, const SearchResult& row, Mode mode, const EventPrinter& events);
};
