// SpecErrors: checks the parameters of a request against the "spec" of its
// restmap.conf stanza, and gives the failures back as an XML reply body.
//
// A spec is a list of clauses separated by ";", each "<form>=<param>,...":
//   required=name,search; int=count,offset; bool=force
// "required": the parameter must be given with a non-empty value.
// "int": every value given must be a base-10 integer (a sign allowed).
// "bool": every value given must be one of true, false, 1, 0, yes, no.
// Parameters not named are free. Blanks around names are ignored.
//
// Threads: a plain value; one thread at a time.
#pragma once

#include <vector>

#include "framework/http/HTTPRequest.h"
#include "util/Str.h"

class SpecErrors {
 public:
  // False with the reason in `err` when `spec` is not of the form above.
  static bool checkSpec(const Str& spec, Str& err);

  // Checks `params` (body and query parameters together) against `spec`;
  // returns true when there is no error. A malformed spec is itself an error.
  bool validate(const Str& spec, const HTTPRequest::Params& params);

  bool empty() const { return _errors.empty(); }
  const std::vector<Str>& errors() const { return _errors; }
  void add(const Str& text) { _errors.push_back(text); }

  // <response><messages><msg type="ERROR">...</msg>...</messages></response>
  Str toXML() const;

 private:
  std::vector<Str> _errors;
};
