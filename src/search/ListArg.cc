#include "search/ListArg.h"

Str ListArg::toString(unsigned int indent) const { return "[" + list.toString(indent, false) + "]"; }
