// ProcessorArg: a parsed subsearch, waiting for evalArgs() to run it.
// Owns the SearchProcessor (normally a SearchPipeline) it holds.
#pragma once

#include "search/Arg.h"

class SearchProcessor;

class ProcessorArg : public Arg {
 public:
  explicit ProcessorArg(SearchProcessor* p) : Arg(PROCESSOR), processor(p) {}
  ~ProcessorArg() override;

  // The processor's toString, or "NULL".
  Str toString(unsigned int indent) const override;

  SearchProcessor* getProcessor() const { return processor; }
  // Hands the processor to the caller; the argument then holds none.
  SearchProcessor* release() {
    SearchProcessor* p = processor;
    processor = nullptr;
    return p;
  }

 private:
  SearchProcessor* processor;
};
