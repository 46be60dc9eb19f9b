// DataBinding: the meaning of one capture group of a date or time pattern,
// named in datetime.xml by the `extract` attribute of a `define` ("year",
// "litmonth", "hour", ...). A group whose name is not one of the known
// bindings is ignored.
//
// BindingValues is what one match gives: the text of each binding as a
// segment into the matched line, in a fixed array indexed by the binding's
// id, so that a match allocates nothing.
//
// Plain values; any thread may use its own copies.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/StrSegment.h"

class DataBinding {
 public:
  enum Id : uint8_t {
    LITMONTH = 0,
    MONTH,
    DAY,
    YEAR,
    ORD,
    UTCEPOCH,
    HOUR,
    AMPM,
    MINUTE,
    SECOND,
    SUBSECOND,
    ZONE,
    COUNT,           // number of known bindings
    IGNORED = COUNT  // a group nothing reads
  };

  DataBinding() = default;
  explicit DataBinding(const Str& name);

  const Str& name() const { return _name; }
  Id id() const { return _id; }

  // The id of a binding name; IGNORED when unknown.
  static Id idOf(const StrSegment& name);

 private:
  Str _name;
  Id _id = IGNORED;
};

// The text of each binding of one match (empty segment: not matched).
struct BindingValues {
  StrSegment v[DataBinding::COUNT];

  void clear() {
    for (auto& s : v) s.clear();
  }
  const StrSegment& operator[](DataBinding::Id id) const { return v[id]; }
  bool has(DataBinding::Id id) const { return v[id].data() != nullptr; }
};
