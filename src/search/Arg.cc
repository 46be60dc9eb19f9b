#include "search/Arg.h"

#include <cassert>

void Arg::append(Arg*) {
  assert(!"Arg::append on an argument without members");
}

Str ArgList::toString(unsigned int indent, bool spaceSeparated) const {
  Str out;
  const char* sep = spaceSeparated ? " " : ", ";
  for (size_t i = 0; i < size(); ++i) {
    if (i) out += sep;
    out += (*this)[i]->toString(indent);
  }
  return out;
}

void ArgList::free() {
  for (Arg* a : *this) delete a;
  clear();
}
