#include "pipeline/analysis/RegexBinding.h"

RegexBinding::RegexBinding(const Str& name, const Str& pattern, const std::vector<DataBinding>& bindings)
    : _name(name), _regex(pattern, true), _bindings(bindings) {}

bool RegexBinding::evaluate(const StrSegment& text, BindingValues& values, size_t& begin, size_t& end,
                            RegexMatch& scratch) const {
  StrSegment subject(text);
  if (!_regex.match(subject, &scratch)) return false;
  values.clear();
  const size_t groups = scratch.size();
  for (size_t i = 0; i < _bindings.size() && i + 1 < groups; ++i) {
    const DataBinding::Id id = _bindings[i].id();
    if (id == DataBinding::IGNORED) continue;
    const StrSegment& g = scratch.getGroup(i + 1);
    if (g.data() == nullptr) continue;  // an optional group that took no part
    values.v[id] = g;
  }
  begin = scratch.getMatchStart();
  end = scratch.getMatchEnd();
  return true;
}
