// RegexBinding: one compiled date or time pattern of datetime.xml with the
// DataBindings that name its capture groups, group 1 first.
//
// Built once by DatePatternSet and immutable afterwards, so any number of
// DateParsers on any threads share it. evaluate() writes into the caller's
// BindingValues and RegexMatch, which the caller keeps from line to line so
// that a warm match allocates nothing.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "pipeline/analysis/DataBinding.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class RegexBinding {
 public:
  // `pattern` is the resolved regular expression; throws std::runtime_error
  // when it does not compile.
  RegexBinding(const Str& name, const Str& pattern, const std::vector<DataBinding>& bindings);

  const Str& name() const { return _name; }
  const Regex& regex() const { return _regex; }
  const std::vector<DataBinding>& bindings() const { return _bindings; }

  // Runs the pattern over `text`. On a match fills `values` (cleared first)
  // and sets [begin, end) to the offsets of the whole match within `text`.
  bool evaluate(const StrSegment& text, BindingValues& values, size_t& begin, size_t& end,
                RegexMatch& scratch) const;

 private:
  Str _name;
  Regex _regex;
  std::vector<DataBinding> _bindings;
};
