#include "framework/auth/userInformation.h"

Str userInformation::toString() const {
  Str type;
  for (const Str& r : roles) {
    if (!type.empty()) type += ':';
    type += r;
  }
  return userId + ";" + username + ";;" + realname + ";" + type;
}

bool userInformation::fromString(const Str& s, userInformation& out, Str& err) {
  std::vector<Str> parts = splitFields(s, ';');
  if (parts.size() != 5) {
    err = "Incorrect user string must be in the form userId;username;;realname;userType, there must be 5 elements.";
    return false;
  }
  out = userInformation();
  out.userId = parts[0];
  out.username = parts[1];
  out.realname = parts[3];
  if (!parts[4].empty()) out.roles = splitFields(parts[4], ':');
  return true;
}

std::vector<Str> userInformation::splitFields(const Str& s, char sep) {
  std::vector<Str> parts;
  size_t start = 0;
  for (;;) {
    size_t at = s.find(sep, start);
    if (at == Str::npos) {
      parts.push_back(s.substr(start));
      return parts;
    }
    parts.push_back(s.substr(start, at - start));
    start = at + 1;
  }
}
