// StringTemplate: the output text of a regex rule, such as "host::$1" or
// "$2-$1", split once into literal pieces and group references so that
// writing it for an event is a walk over the pieces.
//
// Syntax:
//   $N    group N of the match, N being one or two decimal digits (1-99);
//         "$123" is group 12 followed by the text "3".
//   $$    one "$".
//   $0, and "$" before anything but a digit or "$" (or at the end), are
//         plain text: groups count from 1, and the whole match is not a
//         group of its own.
//
// Immutable after construction; any number of threads may interpolate at
// once.
#pragma once

#include <cstddef>
#include <vector>

#include "util/Str.h"
#include "util/StringPiece.h"

class StringTemplate {
 public:
  explicit StringTemplate(const Str& text);

  // The highest group number referred to, 0 when the template is plain
  // text.
  unsigned maxGroup() const { return _maxGroup; }
  // True when the template refers to no group at all.
  bool isLiteral() const { return _maxGroup == 0; }
  const Str& getText() const { return _text; }

  // Appends the template to `out` with each reference to group N replaced
  // by groups[N - 1]. A reference beyond `count`, or to a group that took
  // no part in the match (a null piece), writes nothing.
  void interpolate(const StringPiece* groups, size_t count, Str& out) const;

 private:
  struct Piece {
    Str literal;       // written first
    unsigned group;    // then this group, 0 for none
  };

  Str _text;
  std::vector<Piece> _pieces;
  unsigned _maxGroup = 0;
};
