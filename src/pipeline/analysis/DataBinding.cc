#include "pipeline/analysis/DataBinding.h"

#include <cstring>

namespace {

const char* const kNames[DataBinding::COUNT] = {"litmonth", "month",    "day",    "year",   "ord",       "utcepoch",
                                                "hour",     "ampm",     "minute", "second", "subsecond", "zone"};

}  // namespace

DataBinding::DataBinding(const Str& name) : _name(name), _id(idOf(StrSegment(name))) {}

DataBinding::Id DataBinding::idOf(const StrSegment& name) {
  for (unsigned i = 0; i < COUNT; ++i) {
    if (name.size() == std::strlen(kNames[i]) && std::memcmp(name.data(), kNames[i], name.size()) == 0)
      return static_cast<Id>(i);
  }
  return IGNORED;
}
