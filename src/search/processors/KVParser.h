// KVParser: a DELIMS/FIELDS rule of the `transforms` file (and the
// kvdelim/pairdelim rule typed in a `kv` search, named "cmd_delim_kv").
//
// DELIMS is one or two comma-separated sets of delimiter characters, each
// set quoted or bare: DELIMS = "&", "=" or DELIMS = "\t" (a backslash
// before t, n or r stands for tab, newline or return, before any other
// character for that character). The first set cuts the text into
// pieces, the second cuts a piece into key and value at its first
// delimiter.
//  - With two sets: every piece with a key delimiter is a pair; a value
//    that starts with a double quote runs to the closing quote (pair
//    delimiters inside are kept), without the quotes. Pieces without a key
//    delimiter, and empty keys, are passed over unless FIELDS is given.
//  - With FIELDS (a comma- or blank-separated list of names), pieces that
//    are not pairs are named by position: the n-th such piece goes to the
//    n-th name; pieces past the list are dropped.
// Empty pieces (delimiters in a row) are skipped when the piece delimiter
// is white space, and count as empty positional values otherwise (a CSV
// line "a,,c" has three columns).
// Keys are cleaned with takeLastWord. Read-only after init(); shareable.
#pragma once

#include <bitset>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"

class ResultInserter;

class KVParser {
 public:
  // Reads DELIMS and FIELDS. False (logged, message in `error`) when no
  // delimiter is given.
  bool init(const Str& delims, const Str& fields, const Str& name, Str* error = nullptr);
  // The same from the two sets as typed (no quoting, no escapes).
  bool initSets(const Str& pairDelims, const Str& kvDelims, const Str& name, Str* error = nullptr);

  const Str& getName() const { return _name; }
  void setSourceKey(const Str& key) { _sourceKey = key; }
  const Str& getSourceKey() const { return _sourceKey; }

  int matchAndInsert(const StrSegment& text, ResultInserter& ins) const;

  // "\"&\", \"=\"" -> {"&", "="}; escapes undone. Exposed for tests.
  static std::vector<Str> parseDelims(const Str& text);

 private:
  bool finish(const Str& name, Str* error);

  Str _name;
  Str _sourceKey = "_raw";
  std::bitset<256> _pair, _kv;
  bool _hasKv = false;
  bool _pairIsSpace = true;
  std::vector<Str> _fields;
};
