#include "search/processors/ParseNodeDIRECTIVE.h"

#include <cassert>

void ParseNodeDIRECTIVE::pushNOT() { assert(!"pushNOT on a directive"); }
