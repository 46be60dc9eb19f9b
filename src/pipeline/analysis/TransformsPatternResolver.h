// TransformsPatternResolver: resolves a [[name]] reference in the REGEX of a
// transforms rule to the REGEX of the transforms stanza called `name`, so
// that one rule can be built from the patterns of others.
//
// One object per process (instance()); it holds no state of its own and
// reads through PropertyPages::regexInstance(), which guards itself, so any
// thread may call it.
#pragma once

#include "util/RegexNameResolver.h"
#include "util/Str.h"

class TransformsPatternResolver : public RegexNameResolver {
 public:
  static TransformsPatternResolver& instance();

  // The REGEX of stanza `name` in transforms, or "" when there is none.
  Str resolve(const Str& name) override;

 private:
  TransformsPatternResolver() = default;
};
