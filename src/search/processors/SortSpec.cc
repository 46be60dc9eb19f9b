#include "search/processors/SortSpec.h"

#include <cctype>
#include <cstring>

namespace {

bool allDigits(const Str& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!isdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

bool equalsNoCase(const Str& a, const char* b) {
  size_t n = strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
  return true;
}

const char* typeName(sort_type t) {
  switch (t) {
    case number_stype: return "num";
    case string_stype: return "str";
    case ip_stype: return "ip";
    default: return "auto";
  }
}

}  // namespace

void SortSpec::parse(const std::vector<Str>& words, const std::vector<bool>& quoted) {
  fields.clear();
  types.clear();
  ascending.clear();
  bool asc = true;
  size_t n = words.size();
  bool reverseAll = false;
  if (n > 0 && !(n > quoted.size() ? false : quoted[n - 1]) &&
      (equalsNoCase(words[n - 1], "desc") || equalsNoCase(words[n - 1], "down"))) {
    reverseAll = true;
    --n;
  }
  for (size_t i = 0; i < n; ++i) {
    Str w = words[i];
    bool isQuoted = i < quoted.size() && quoted[i];
    if (w.empty()) throw SortSpecException("Invalid empty string argument");
    if (!isQuoted) {
      if (i == 0 && allDigits(w)) {
        limit = w.toUnsignedLong(0);
        continue;
      }
      if (w == "+" || w == "-") {
        asc = (w == "+");
        continue;
      }
      if (w[0] == '+' || w[0] == '-') {
        asc = (w[0] == '+');
        w.erase(0, 1);
      }
      sort_type t = auto_stype;
      size_t open = w.find('(');
      size_t close = w.rfind(')');
      if (open != Str::npos || close != Str::npos) {
        if (open == Str::npos || close == Str::npos || close < open || close != w.size() - 1)
          throw SortSpecException("Mismatched parenthesis in field specifier: '%s'", words[i].c_str());
        Str fn = w.substr(0, open);
        if (equalsNoCase(fn, "auto")) t = auto_stype;
        else if (equalsNoCase(fn, "num")) t = number_stype;
        else if (equalsNoCase(fn, "str")) t = string_stype;
        else if (equalsNoCase(fn, "ip")) t = ip_stype;
        else throw SortSpecException("Mismatched parenthesis in field specifier: '%s'", words[i].c_str());
        w = w.substr(open + 1, close - open - 1);
      }
      if (w.empty())
        throw SortSpecException("Invalid empty field name in argument: '%s'", words[i].c_str());
      fields.push_back(w);
      types.push_back(t);
    } else {
      fields.push_back(w);
      types.push_back(auto_stype);
    }
    ascending.push_back(asc);
  }
  if (fields.empty()) throw SortSpecException("No fields to sort by have been specified!");
  if (reverseAll)
    for (size_t i = 0; i < ascending.size(); ++i) ascending[i] = !ascending[i];
}

Str SortSpec::toString() const {
  Str out;
  if (limit > 0) out.appendFormat("limit=%lu", limit);
  for (size_t i = 0; i < fields.size(); ++i) {
    if (!out.empty()) out += ' ';
    out += ascending[i] ? '+' : '-';
    out += typeName(types[i]);
    out += '(';
    out += fields[i];
    out += ')';
  }
  return out;
}
