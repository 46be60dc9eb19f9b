// Transaction: the definition of a transaction, from a stanza of the
// `transactiontypes` property file and/or the options of `transaction`.
//
// Settings (stanza keys and option names are the same):
//   maxspan=<span>    longest time from a transaction's first to its last event
//   maxpause=<span>   longest gap between consecutive events of a transaction
//                     A span is a number with an optional unit: s (seconds,
//                     the default), m, h or d: "30s", "5m", "2h", "1d", "90".
//                     -1 (any negative number) or absent: no limit.
//   maxevents=<n>     most events in one transaction (default 1000; 0 or a
//                     negative number: no limit); the next starts a new one
//   startswith=<cond> an event meeting it starts a new transaction
//   endswith=<cond>   an event meeting it ends its transaction
//                     (see EndPointsOperator for the condition forms)
//   fields=<f>,...    events of a transaction agree on these fields; a name
//                     may end in "*" to take every field with that prefix
//   matchtype=closest the only matching rule (an event joins the group that
//                     took an event most recently among those it agrees with)
//   exclusive=<bool>  accepted and checked; groups never share an event here
//   aliases="<a>=<eventtype>, ..."  names for event types, for the pattern;
//                     each event type must be a stanza of `eventtypes`
//   pattern="<p>"     transactions are the runs of events matching the
//                     pattern (see PatternBuilder for the language)
// Faults throw SearchProcessorException with the TRANSAM_ texts of the
// strings file.
// A plain value object; any thread.
#pragma once

#include <vector>

#include "libbundle/PropertiesMap.h"
#include "util/Str.h"

class Transaction {
 public:
  static const unsigned long kDefaultMaxEvents = 1000;

  // `name` is "no_name" for a definition made of options only. `settings`
  // holds the merged keys above (absent keys take the defaults).
  Transaction(const Str& name, const PropertiesMap& settings);

  // Parses a span as described above. False for a malformed text.
  static bool parseSpan(const Str& text, double& seconds);

  bool hasName() const { return name != "no_name"; }

  Str name;
  double maxspan = -1;
  double maxpause = -1;
  unsigned long maxevents = kDefaultMaxEvents;
  Str startswith;
  Str endswith;
  std::vector<Str> fields;
  Str matchtype = "closest";
  bool exclusive = true;
  std::vector<std::pair<Str, Str>> aliases;  // name, event type
  Str pattern;
};
