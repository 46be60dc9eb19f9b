// CallbackList: the handlers of one management function, in priority order
// (lower first; equal priorities in the order added), and the state of one
// call through them.
//
// invoke() runs the handlers in turn until one fails; a handler may instead
// run the rest of the chain itself (invokeNext) and act on its outcome. When
// a call fails, the handlers that had succeeded are rolled back, the last to
// succeed first.
//
// Ownership: the handlers belong to their registrants. Threads: a list is a
// value; InvokeAPIManager keeps one per function under its mutex and gives
// each call a copy of its own, so the call state is never shared.
#pragma once

#include <utility>
#include <vector>

#include "util/Str.h"

class MSoapManagementCallback;
struct FdConnectionData;
namespace xml {
class node;
}

class CallbackList {
 public:
  void add(MSoapManagementCallback* cb, int priority);
  // False when `cb` was not in the list.
  bool remove(MSoapManagementCallback* cb);
  bool empty() const { return _entries.empty(); }
  size_t size() const { return _entries.size(); }

  // Runs the call through the chain; true when every handler succeeded.
  bool invoke(const FdConnectionData* conn, const xml::node& args, const Str& function);
  // Runs the handlers not yet run, in turn; true when all succeeded (or
  // none was left). A handler calls it to run the rest of the chain.
  bool invokeNext(const FdConnectionData* conn, const xml::node& args, const Str& function);
  // Rolls back the handlers that succeeded in this call, newest first.
  void rollback(const FdConnectionData* conn, const xml::node& args, const Str& function);

  void setResult(const Str& r) { _result = r; }
  const Str& result() const { return _result; }
  void setError(const Str& e) { _error = e; }
  const Str& error() const { return _error; }

 private:
  std::vector<std::pair<int, MSoapManagementCallback*>> _entries;
  size_t _next = 0;
  std::vector<MSoapManagementCallback*> _succeeded;
  Str _result, _error;
};
