// ITokenHandler: receives terms that are to be lowercased before use.
// Called on the thread that produces the tokens.
#pragma once

#include "util/StrSegment.h"

class ITokenHandler {
 public:
  virtual ~ITokenHandler() = default;
  virtual void processToken(const StrSegment& token) = 0;
};
