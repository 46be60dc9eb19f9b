// roleDetails: one role as authorize.conf describes it: the capabilities the
// role names itself, each enabled or disabled, the roles it imports, its
// search filter and the indexes its searches may read.
//
// A plain value; one thread at a time. AuthorizationManagerVelmor keeps
// one per role and hands out copies.
#pragma once

#include <map>
#include <vector>

#include "util/Str.h"

struct roleDetails {
  Str name;                            // lower case, without "role_"
  std::map<Str, bool> capabilities;    // own keys only: capability -> enabled
  std::vector<Str> importRoles;        // "importRoles = a;b", lower case, in order
  Str srchFilter;                      // "" when the role does not restrict searches
  std::vector<Str> srchIndexesAllowed; // wildcards; empty: the role says nothing

  // Whether the role itself enables `capability` (imports not looked at).
  bool enabled(const Str& capability) const {
    auto it = capabilities.find(capability);
    return it != capabilities.end() && it->second;
  }
};
