// MapRegexNameResolver: resolves the [[name]] references of a modular
// pattern from a map of name -> pattern text that it holds by value.
//
// Threads: fill it first, then resolve from any number of threads; put()
// while others resolve needs outside locking.
#pragma once

#include <map>

#include "util/RegexNameResolver.h"
#include "util/Str.h"

class MapRegexNameResolver : public RegexNameResolver {
 public:
  MapRegexNameResolver() = default;
  explicit MapRegexNameResolver(std::map<Str, Str> patterns) : _patterns(std::move(patterns)) {}

  void put(const Str& name, const Str& pattern) { _patterns[name] = pattern; }
  Str resolve(const Str& name) override;

 private:
  std::map<Str, Str> _patterns;
};
