// QueryHostTag ("hosttagResolver"): "hosttag::<tag>" stands for the hosts
// carrying the tag; the installed ITagResolver names them and they are fed
// as "( host::a OR host::b )". A tag it does not know (or no resolver) adds
// "'<tag>' is not a valid host tag" to the INFO messages and feeds the token
// itself, which matches nothing. "hosttag::web*" is QueryParseException
// "Prefix searching on host tags is unsupported.".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryHostTag : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
