// KVRegex: one REGEX/FORMAT rule of the `transforms` file, applied to text
// at search time.
//
// FORMAT is a blank-separated list of items, each in one of three forms,
// tried in this order:
//   <name>::$<n>     the field <name> gets group n;
//   $<n>::$<m>       the field named by group n gets group m;
//   <name>::<value>  the field <name> gets the fixed text <value>.
// (An item "$1::..." is never read as a fixed name "$1".) An item that fits
// no form is passed over with a warning.
//
// A format with a $<n>::$<m> item (names taken from the text) runs the
// expression over the source text repeatedly, from the end of each match
// (one byte on after an empty match), and every match hands all of its
// pairs to the inserter, until the text ends or the inserter is full; other
// formats take the first match only. A group that took no part in a match gives no pair. Names coming
// from a group are cleaned with takeLastWord (the text before a name may be
// caught with it); fixed names are not.
//
// After init() the rule is read-only and may be shared by threads; match
// scratch comes from the caller's inserter.
#pragma once

#include <vector>

#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class ResultInserter;

class KVRegex {
 public:
  KVRegex() = default;
  KVRegex(const KVRegex&) = delete;
  KVRegex& operator=(const KVRegex&) = delete;

  // Compiles "(?ms)" + regex (JIT) and reads the format. On failure logs and
  // answers false with the message in `error` (if not null).
  bool init(const Str& regex, const Str& format, const Str& name, Str* error = nullptr);

  const Str& getName() const { return _name; }
  // The field read instead of _raw (SOURCE_KEY).
  void setSourceKey(const Str& key) { _sourceKey = key; }
  const Str& getSourceKey() const { return _sourceKey; }

  // Runs over `text` and hands the pairs to `ins`. Returns pairs taken.
  int matchAndInsert(const StrSegment& text, ResultInserter& ins) const;

 private:
  struct Item {
    Str name;            // fixed name, or empty when nameGroup is set
    unsigned nameGroup;  // 0: fixed name
    unsigned valueGroup; // 0: fixed value
    Str value;           // fixed value
  };

  Str _name;
  Str _sourceKey = "_raw";
  Regex _re;
  std::vector<Item> _items;
  bool _repeat = false;
};
