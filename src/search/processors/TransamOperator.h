// TransamOperator: `transaction` (also `transam`) groups related events into
// one row each.
//
//   transaction [<type>] [fields=<f>,...] [maxspan=<span>] [maxpause=<span>]
//               [maxevents=<n>] [startswith=<cond>] [endswith=<cond>]
//               [matchtype=closest] [exclusive=<bool>]
//               [aliases="<a>=<eventtype>, ..." pattern="<pattern>"]
//
// <type> names a stanza of `transactiontypes` (with its [default] stanza
// below it); the options given override the stanza. Without a type only the
// options count. Field names after fields= may also follow it as separate
// words: `fields=clientip,sessionid`. The settings are described in
// Transaction.h; spans take s, m, h or d ("30s", "5m", "2h", "1d"; a plain
// number is seconds; -1 is no limit), maxevents defaults to 1000, and
// startswith/endswith take a search expression matched against the event
// (terms and "quoted phrases" against _raw ignoring case, field=value
// comparisons, OR/NOT) or eval(<expression>).
//
// Grouping: the rows are put in time order (search order, newest first, is
// simply reversed; other orders are sorted stably; rows without a time come
// first), then the steps run in this order: UnifiedOperator on the fields,
// then MaxSpanOperator (span, pause, count) and EndPointsOperator (start and
// end events) cut together, so that every piece's span, pause and count are
// measured from its own first event, and last, with pattern=, PatternOperator
// cuts the runs of events that match the pattern out of each piece (events
// outside every match are left out). Each step is linear in the events (the
// pattern step as linear as its regular expression).
//
// Each transaction becomes one row, the rows newest first by their first
// event:
//   _raw         the events' _raw joined by newlines, oldest first
//   _time        the first event's _time
//   duration     last time minus first time (with more than one event)
//   count        the number of events
//   linecount    the total number of lines of the events' _raw
//   eventtype    the union of the events' event types, blank-separated
//   _data_type   "transaction"; transactiontype: the type's name, if any
//   every other field on which the events that have it agree; a field whose
//   values differ is left out.
//
// Not streamable (it needs every row) and no partial results. The command
// owns its definition and operators; one thread at a time.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"
#include "search/processors/Transaction.h"

class TransamOperator : public SearchProcessor {
 public:
  explicit TransamOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new TransamOperator(name); }

  bool isStreamable() const override { return false; }
  bool acceptsPartialResults() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // REQUIRES: processArguments() has run.
  const Transaction& definition() const { return *_def; }

 private:
  std::unique_ptr<Transaction> _def;
};
