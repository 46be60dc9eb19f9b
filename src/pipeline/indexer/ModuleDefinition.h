// ModuleDefinition: one <module> of the query language definition file: the
// factory name of the module, the keywords it must have (requiredArgs), the
// keywords it may have (optionalArgs) and the help text GetHelp shows.
//
// The defining keywords of a module are its required ones or, where it has
// none, its optional ones: each of them reaches the module from the query
// text.
//
// A plain value, held by shared pointer in the tables of
// CompiledQueryLanguage and immutable once built, so any thread may read it.
#pragma once

#include <vector>

#include "util/Str.h"

struct ModuleDefinition {
  Str name;
  std::vector<Str> requiredArgs;
  std::vector<Str> optionalArgs;
  Str helpText;

  const std::vector<Str>& definingArgs() const { return requiredArgs.empty() ? optionalArgs : requiredArgs; }
  // Whether keyword is one of its required or optional arguments.
  bool takes(const Str& keyword) const;
};
