// RegexNameResolver: where a modular pattern finds the text of a [[name]]
// reference (see Regex::resolveModularPattern). Implementations decide their
// own thread safety; Regex calls resolve() only from the thread that asked
// for the expansion.
#pragma once

#include "util/Str.h"

class RegexNameResolver {
 public:
  virtual ~RegexNameResolver() = default;
  // The pattern text stored under `name`, or the empty string if there is
  // none.
  virtual Str resolve(const Str& name) = 0;
};
