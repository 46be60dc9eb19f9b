#include "pipeline/indexer/QueryUnexpected.h"

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"

namespace {

// A score 0-9 from one digit; -1 if it is not one.
int score(const Str& s) { return s.size() == 1 && s[0] >= '0' && s[0] <= '9' ? s[0] - '0' : -1; }

}  // namespace

void QueryUnexpected::runModule() {
  const Str value = getArg("unexpected");
  if (value.empty()) throw QueryException("No unexpected found !!");
  QueryStateMachine& sm = _query->stateMachine();
  int from, to;
  const size_t dash = value.find('-');
  if (value.endswith('+')) {
    from = score(Str(value.substr(0, value.size() - 1)));
    to = 9;
  } else if (dash != Str::npos) {
    Str a = value.substr(0, dash), b = value.substr(dash + 1);
    if (a.empty() || b.empty()) {  // "N-" or "-N": from 0
      from = 0;
      to = score(a.empty() ? b : a);
      if (a.empty() == b.empty()) to = -1;
    } else {
      from = score(a);
      to = score(b);
    }
  } else {
    const int n = score(value);
    if (n < 0) throw QueryParseException(value + " is not a valid value for unexpected");
    sm.accept("unexpected::" + value);
    return;
  }
  if (from < 0 || to < 0) throw QueryParseException(value + " is not a valid value for unexpected");
  sm.accept("(");
  for (int i = from; i <= to; ++i) {
    if (i != from) sm.accept("OR");
    sm.accept("unexpected::" + ToString(i));
  }
  sm.accept(")");
}
