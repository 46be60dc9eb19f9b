// QueryEventType ("eventtypeResolver"): the event type keywords, each
// expanded by the installed ITagResolver into the terms it stands for, fed
// as one parenthesised OR:
//   eventtype::<name>                the event type
//   eventtypetag::<tag>, typetag::<tag>   the event types carrying the tag
//   tag::<field>::<tag>              the values of host, source, sourcetype,
//                                    savedsearch or eventtype carrying the tag
// A name the resolver does not know (or no resolver) adds an INFO message
// ("Unable to find eventtype <name>", "Unable to find tag <tag> on
// <field>") and feeds the token itself, which matches nothing.
// QueryParseException: "Tag request malformed. Must be tag::<metadata>::<tag>",
// "In query, tags are only allowed for host, source, sourctype, savedsearch
// and eventtype.", "Prefix searching on event tags is unsupported.",
// "Prefix searching on host tags is unsupported.".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryEventType : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
