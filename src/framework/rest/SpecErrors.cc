#include "framework/rest/SpecErrors.h"

#include "framework/http/HTTPReply.h"

namespace {

Str trim(const Str& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == Str::npos) return "";
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

std::vector<Str> split(const Str& s, char sep) {
  std::vector<Str> out;
  size_t start = 0;
  while (start <= s.size()) {
    size_t end = s.find(sep, start);
    if (end == Str::npos) end = s.size();
    out.push_back(trim(s.substr(start, end - start)));
    start = end + 1;
  }
  return out;
}

struct Clause {
  Str form;
  std::vector<Str> names;
};

bool parse(const Str& spec, std::vector<Clause>& out, Str& err) {
  for (const Str& part : split(spec, ';')) {
    if (part.empty()) continue;
    size_t eq = part.find('=');
    if (eq == Str::npos) {
      err = "spec clause without '=': '" + part + "'";
      return false;
    }
    Clause c;
    c.form = trim(part.substr(0, eq));
    if (c.form != "required" && c.form != "int" && c.form != "bool") {
      err = "unknown spec form '" + c.form + "'";
      return false;
    }
    for (const Str& n : split(part.substr(eq + 1), ','))
      if (!n.empty()) c.names.push_back(n);
    if (c.names.empty()) {
      err = "spec form '" + c.form + "' names no parameter";
      return false;
    }
    out.push_back(std::move(c));
  }
  return true;
}

bool isInt(const Str& v) {
  size_t i = (!v.empty() && (v[0] == '-' || v[0] == '+')) ? 1 : 0;
  if (i == v.size()) return false;
  for (; i < v.size(); ++i)
    if (v[i] < '0' || v[i] > '9') return false;
  return true;
}

bool isBool(const Str& v) {
  return v == "true" || v == "false" || v == "1" || v == "0" || v == "yes" || v == "no";
}

}  // namespace

bool SpecErrors::checkSpec(const Str& spec, Str& err) {
  std::vector<Clause> clauses;
  return parse(spec, clauses, err);
}

bool SpecErrors::validate(const Str& spec, const HTTPRequest::Params& params) {
  std::vector<Clause> clauses;
  Str err;
  if (!parse(spec, clauses, err)) {
    add("Invalid parameter specification: " + err);
    return false;
  }
  size_t before = _errors.size();
  for (const Clause& c : clauses) {
    for (const Str& name : c.names) {
      auto it = params.find(name);
      if (c.form == "required") {
        bool given = false;
        if (it != params.end())
          for (const Str& v : it->second) given = given || !v.empty();
        if (!given) add("Missing required parameter '" + name + "'");
        continue;
      }
      if (it == params.end()) continue;
      for (const Str& v : it->second) {
        if (c.form == "int" && !isInt(v)) add("Parameter '" + name + "' must be an integer: '" + v + "'");
        if (c.form == "bool" && !isBool(v)) add("Parameter '" + name + "' must be a boolean: '" + v + "'");
      }
    }
  }
  return _errors.size() == before;
}

Str SpecErrors::toXML() const {
  Str out = "<response>\n<messages>\n";
  for (const Str& e : _errors) out += "<msg type=\"ERROR\">" + HTTPReply::xmlEscape(e) + "</msg>\n";
  out += "</messages>\n</response>\n";
  return out;
}
