// PeerSearch: turns a search into the form that spreads it over peers.
//
//   search error | stats count by host | sort -count
// over https://a:8089 and https://b:8089 becomes
//   dispatch https://a:8089 https://b:8089 [ search error | prestats count by host ]
//     | stats count by host | sort -count
//
// The bracket holds the streaming prefix and the map half of the first
// reducing command (see PipelineSplit); every server, this one included,
// runs it over its own events, and the rest runs once here over the union of
// what they gave, so the rows are those of one server holding all events.
//
// Callers: whoever starts a search job (the REST job writer, velmor-search)
// calls rewrite() on the user's text after it was accepted by
// SearchParser::parse(text, false), and parses the answer with internal
// commands allowed (the map halves are internal commands).
// Stateless; any thread.
#pragma once

#include <vector>

#include "util/Str.h"

class PeerSearch {
 public:
  // The search to run. Unchanged when there are no peers, when the search
  // has no streaming prefix (it starts with a generating command such as
  // `| inputcsv`), or when it already holds a `dispatch`. Parse and argument
  // faults come out as SearchProcessorException.
  static Str rewrite(const Str& search, const std::vector<Str>& peers);

  // The commands of a search at its top-level "|" (outside double quotes and
  // brackets), blanks trimmed. A leading "|" gives an empty first member.
  static std::vector<Str> splitCommands(const Str& search);
};
