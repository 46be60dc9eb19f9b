#include "pipeline/indexer/QueryRegexFilter.h"

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Regex.h"

static Logger gLogger("QueryRegexFilter");

void QueryRegexFilter::runModule() {
  const Str value = getArg("grep");
  gLogger.debug("REGEX = \"%s\"", value.c_str());
  auto re = std::make_shared<Regex>();
  try {
    re->init(value, true);
  } catch (const std::exception&) {
    throw QueryParseException("Unable to parse " + value + " as a regular expression ");
  }
  _query->stateMachine().addRegexFilter(re);
}
