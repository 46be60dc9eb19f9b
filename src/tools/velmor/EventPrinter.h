// EventPrinter: one event as a person reads it:
//   <local time> <host> <text>
// The time is the event's _time in the process's zone ("2026-11-25
// 04:44:24", with milliseconds when the event has a fraction); the text is
// _raw as indexed. With colour on, the time is green, the host cyan and
// every occurrence of a search term in the text (any case) bold red; the
// caller decides whether colour is on (a terminal and NO_COLOR unset).
//
// A plain value; one thread.
#pragma once

#include <vector>

#include "util/Str.h"

class SearchResult;
class SearchResults;

class EventPrinter {
 public:
  EventPrinter(std::vector<Str> terms, bool colour);

  // The line for one row of `rows` (no newline at the end).
  Str format(const SearchResults& rows, const SearchResult& row) const;
  // The text with the terms marked (colour on) or as it is.
  Str highlight(const Str& text) const;
  // "1795574345.25" -> "2026-11-24 09:19:05.250" in local time; text that
  // is no number is given back as it is.
  static Str formatTime(const Str& epoch);

 private:
  std::vector<Str> _terms;  // lower-cased
  bool _colour;
};
