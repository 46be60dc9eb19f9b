// Module: one instance of a module of the inner query language, built by the
// compiler from a module definition and the keyword::value pairs it took
// (ModuleArgs). Modules run in the order of their control ("SEARCH", "SORT",
// "GET", "OUTPUT") and, within one, in the order the compiler listed them.
//
// A module class has a factory getModule<T>(query, args, name) that the
// compiler's factory table names. The base runModule only logs that it is
// not implemented; validate logs "VALIDATING %s !".
//
// Ownership: held by shared pointer in its Query's lists; the Query outlives
// its modules' runs. Threads: the thread running the query.
#pragma once

#include <memory>
#include <unordered_map>

#include "util/Str.h"

class Query;

// The arguments of one module instance: keyword to value.
using ModuleArgs = std::unordered_map<Str, Str>;

class Module {
 public:
  Module(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : _query(query), _args(std::move(args)), _name(name) {}
  virtual ~Module() = default;
  // Logs "This call is not implemented yet (runModule in %s)" at warn.
  virtual void runModule();
  // Logs "VALIDATING %s !" at debug.
  virtual void validate();

  const Str& getName() const { return _name; }
  const ModuleArgs& getArgs() const { return *_args; }
  // The value of keyword, or empty.
  Str getArg(const Str& keyword) const;
  bool hasArg(const Str& keyword) const { return _args->count(keyword) != 0; }

 protected:
  Query* _query;
  std::shared_ptr<ModuleArgs> _args;
  Str _name;
};

template <typename T>
std::shared_ptr<Module> getModule(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name) {
  return std::make_shared<T>(query, std::move(args), name);
}

using ModuleFactory = std::shared_ptr<Module> (*)(Query*, std::shared_ptr<ModuleArgs>, const Str&);
