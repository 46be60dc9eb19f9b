#include "search/ProcessorArg.h"

#include "search/SearchProcessor.h"

ProcessorArg::~ProcessorArg() { delete processor; }

Str ProcessorArg::toString(unsigned int indent) const {
  return processor ? processor->toString(indent) : Str("NULL");
}
