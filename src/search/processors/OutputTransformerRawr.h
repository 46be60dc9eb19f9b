// OutputTransformerRawr: `outputrawr` is `outputraw` in reverse row order:
// the last row first (events come newest first, so this prints them in the
// order they happened). One thread at a time, like every command.
#pragma once

#include "search/processors/OutputTransformerRaw.h"

class OutputTransformerRawr : public OutputTransformerRaw {
 public:
  explicit OutputTransformerRawr(const Str& name) : OutputTransformerRaw(name) {}
  static SearchProcessor* create(const Str& name) { return new OutputTransformerRawr(name); }

 protected:
  bool reversed() const override { return true; }
};
