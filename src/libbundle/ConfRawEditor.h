// ConfRawEditor: rewrites the "_raw" text of a stanza after its keys change.
//
// The lines of the old text stand in their order. A "key = value" line whose
// key the new map holds gets the new value (written "key = value", the key as
// it stood, leading blanks included) (only its first occurrence, as
// only the first occurrence counts when the file is read back); comment lines
// ("#" or ";" first) stay; a key of the map that no line names is added at the
// end as "key = value". A line with no "=" ("missing '=' in conf line: %s")
// and a line with an empty key ("empty key in conf line: %s") are logged as
// warnings and dropped. Continued lines (value ending in a backslash before
// the newline) are handled as one line. A value with embedded newlines is
// written with a backslash before each newline.
//
// Stateless; any thread.
#pragma once

#include "libbundle/PropertiesMap.h"
#include "util/Str.h"

class ConfRawEditor {
 public:
  // With `dropAbsent` true (a whole stanza replaced), key lines whose key the
  // map does not hold are removed; with false (an edit) they stay.
  static Str regenerate(const Str& oldRaw, const PropertiesMap& map, bool dropAbsent);

  // "key = value\n" with the value stripped and every newline in it escaped,
  // a blank in front of a key that begins with "[", "#" or ";", and a blank
  // after a value that ends in a backslash: the line reads back as written.
  static void appendKeyLine(Str& out, const Str& key, const Str& value);
};
