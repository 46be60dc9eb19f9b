// ITokenHandler: receives tokens one at a time from a producer (for example
// the `key::value` tokens stored with an event). Called by one thread at a
// time; the token bytes are only valid during the call.
#pragma once

#include <cstddef>

class ITokenHandler {
 public:
  virtual ~ITokenHandler() = default;
  virtual void handleToken(const char* token, size_t len) = 0;
};
