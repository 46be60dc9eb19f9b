// Fuzz target: arbitrary bytes as the local user file. Every line that is
// kept must come back the same after being written out and read again; the
// stored passwords and the wire form of each user go through their readers.
// Nothing may crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "framework/auth/AuthenticationManagerVelmor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using Velmor = AuthenticationManagerVelmor;
  const Str text(std::string(reinterpret_cast<const char*>(data), size));
  Velmor::UserMap users;
  Velmor::parseUserLines(text, users, "fuzz");
  for (const auto& [name, r] : users) {
    Velmor::UserMap again;
    if (Velmor::parseUserLines(Velmor::formatUserLine(r), again, "fuzz") != 0 || again.size() != 1 ||
        again.begin()->first != name || again.begin()->second.info.toString() != r.info.toString() ||
        again.begin()->second.info.password != r.info.password || again.begin()->second.salt != r.salt)
      abort();
    Str clear;
    Velmor::decryptWithKey("fuzzkey", r.info.password, Velmor::kSalt, clear);
    userInformation parsed;
    Str err;
    if (userInformation::fromString(r.info.toString(), parsed, err) && parsed.username != r.info.username) abort();
  }
  userInformation any;
  Str err;
  userInformation::fromString(text, any, err);
  return 0;
}
