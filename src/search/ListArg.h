// ListArg: a bracketed subsearch as the parser first sees it, a list of
// StringArgs and nested ListArgs that is not parsed yet. Owns its members.
#pragma once

#include "search/Arg.h"

class ListArg : public Arg {
 public:
  ListArg() : Arg(LIST) {}
  ~ListArg() override { list.free(); }

  void append(Arg* child) override { list.push_back(child); }
  size_t len() const override { return list.size(); }
  // "[" members joined by ", " "]".
  Str toString(unsigned int indent) const override;

  const ArgList& getList() const { return list; }

 private:
  ArgList list;
};
