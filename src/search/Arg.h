// Arg and ArgList: the arguments of one search command.
//
// An Arg carries the text (or subsearch) of one argument from the parser
// until the command reads it in processArguments(). Four kinds exist, told
// apart by `type`: StringArg (0), ListArg (1, an unparsed bracketed
// subsearch), ProcessorArg (2, a parsed subsearch) and ResultsArg (3, the
// rows of a finished subsearch). Readers mark an argument consumed, so that
// what is left over at the end can be refused.
//
// An ArgList is a plain vector of Arg pointers. It does NOT delete its
// members on destruction: whoever owns the list calls free(), so that lists
// can be copied around while an owner (usually a SearchProcessor) keeps the
// members alive.
//
// Objects of this family belong to the thread running their command.
#pragma once

#include <cstddef>
#include <vector>

#include "util/Str.h"

class Arg {
 public:
  enum Type { STRING = 0, LIST = 1, PROCESSOR = 2, RESULTS = 3 };

  explicit Arg(int t) : type(t) {}
  virtual ~Arg() = default;
  Arg(const Arg&) = delete;
  Arg& operator=(const Arg&) = delete;

  // Adds a member; only a ListArg has members. REQUIRES: a ListArg.
  virtual void append(Arg* child);
  // Number of members (a ListArg) or 1.
  virtual size_t len() const { return 1; }
  virtual Str toString(unsigned int indent) const = 0;
  virtual bool isQuoted() const { return false; }
  virtual bool isParsed() const { return false; }
  virtual bool isOption() const { return false; }
  virtual bool isConsumed() const { return consumed; }
  virtual void setConsumed() { consumed = true; }

  int type;
  bool consumed = false;
};

class ArgList : public std::vector<Arg*> {
 public:
  // Members' toString(indent) joined by ", " or, with spaceSeparated, by a
  // single blank.
  Str toString(unsigned int indent, bool spaceSeparated) const;
  // Deletes every member and empties the list.
  void free();
};
