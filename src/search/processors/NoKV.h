// NoKV: the `nokv` command. Undoes field extraction: every public field is
// dropped from the dictionary except the event's own ones (names starting
// with "_", and host, source, sourcetype, eventtype, index, linecount).
// Works on the dictionary only (SearchResults::removeKey), no row is
// touched. Takes no arguments. Streamable. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class NoKV : public SearchProcessor {
 public:
  explicit NoKV(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new NoKV(name); }

  void processArguments() override { refuseLeftovers(); }
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Is `name` one of the fields an event has before any extraction?
  static bool isEventField(const Str& name);
};
