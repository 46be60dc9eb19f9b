// PatternBuilder: turns the pattern language of `transaction pattern=` into
// a regular expression over an event-type stream, a string with one letter
// per event (see PatternOperator).
//
// The language, over alias names (from `aliases=`):
//   A B     ordered: B comes after A, with any events between
//   A,B     adjacent: B comes right after A
//   A & B   and: both, in either order (at most 4 parts)
//   ( ... ) grouping
//   X* X+ X?  repetition of the element before
//   .       any one event; [^A B] any one event that is none of these
// Precedence, loosest first: "&", then ordered, then ",", then repetition.
// An alias name is a letter followed by letters, digits or "_".
//
// The regular expression uses the alias letters, "(?:" for the groups it
// makes, and one capturing group "(.*?)" for each gap of an ordered pair, so
// that PatternOperator can leave the events of the gaps out. The whole is
// not wrapped.
//
// Stateless; any thread.
#pragma once

#include <map>
#include <vector>

#include "util/Str.h"

class PatternBuilder {
 public:
  // `letters`: alias name -> its letter. Throws SearchProcessorException
  // with TRANSAM_UNABLE_TO_FIND_ALIAS__S_S for a name without a letter, and
  // TRANSAM_BAD_PATTERN__S_S for a malformed one.
  static Str convert(const Str& pattern, const std::map<Str, char>& letters);

  // The tokens of a pattern: names, and the one-character operators
  // "(", ")", ",", "&", "*", "+", "?", "." and "[^" ... "]" as one token.
  static std::vector<Str> getTokens(const Str& pattern);

 private:
  struct Parser;
};
