#include "util/RegexMatch.h"

#include <stdexcept>

#include "util/Exceptions.h"

const StrSegment& RegexMatch::getGroup(size_t idx) const {
  if (idx >= _groups.size())
    throw std::runtime_error(formatExceptionMessage("IndexOutOfBounds Exception: idx = %u, size = %u",
                                                    static_cast<unsigned>(idx),
                                                    static_cast<unsigned>(_groups.size())));
  return _groups[idx];
}

void RegexMatch::getAllGroups(std::map<Str, Str>& out) const {
  if (_names == nullptr) return;
  for (const auto& [name, idx] : *_names) {
    if (idx < _groups.size() && _groups[idx].data() != nullptr) out[name] = _groups[idx].toStr();
  }
}

void RegexMatch::reset(size_t groups, const std::map<Str, unsigned>* names) {
  // assign() keeps the vector's storage, so a reused match allocates nothing.
  _groups.assign(groups, StrSegment());
  _names = names;
  _start = _end = 0;
}
