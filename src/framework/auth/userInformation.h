// userInformation: one user as a back end knows it. The wire form of a user
// is "userId;username;;realname;userType" (five elements; the third is
// always empty); roles travel in userType, separated by ":" when several.
#pragma once

#include <vector>

#include "util/Str.h"

struct userInformation {
  Str userId;
  Str username;
  Str realname;
  Str password;  // the stored form, never the typed text
  std::vector<Str> roles;

  // The five-element wire form.
  Str toString() const;
  // False with the system's text in `err` when `s` is not five elements.
  static bool fromString(const Str& s, userInformation& out, Str& err);
  // `s` cut at every `sep`, empty pieces kept ("a::b" gives "a", "", "b"):
  // the field split of the wire form and of the user file.
  static std::vector<Str> splitFields(const Str& s, char sep);
};
