#include "pipeline/indexer/Module.h"

#include "util/Logger.h"

static Logger gLogger("Module");

void Module::runModule() { gLogger.warn("This call is not implemented yet (runModule in %s)", _name.c_str()); }

void Module::validate() { gLogger.debug("VALIDATING %s !", _name.c_str()); }

Str Module::getArg(const Str& keyword) const {
  auto it = _args->find(keyword);
  return it == _args->end() ? Str() : it->second;
}
