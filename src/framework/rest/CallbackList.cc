#include "framework/rest/CallbackList.h"

#include <algorithm>

#include "framework/rest/MSoapManagementCallback.h"

void CallbackList::add(MSoapManagementCallback* cb, int priority) {
  auto at = std::upper_bound(_entries.begin(), _entries.end(), priority,
                             [](int p, const std::pair<int, MSoapManagementCallback*>& e) { return p < e.first; });
  _entries.insert(at, {priority, cb});
}

bool CallbackList::remove(MSoapManagementCallback* cb) {
  auto it = std::find_if(_entries.begin(), _entries.end(), [cb](const auto& e) { return e.second == cb; });
  if (it == _entries.end()) return false;
  _entries.erase(it);
  return true;
}

bool CallbackList::invoke(const FdConnectionData* conn, const xml::node& args, const Str& function) {
  _next = 0;
  _succeeded.clear();
  _result.clear();
  _error.clear();
  if (invokeNext(conn, args, function)) return true;
  rollback(conn, args, function);
  return false;
}

bool CallbackList::invokeNext(const FdConnectionData* conn, const xml::node& args, const Str& function) {
  // A handler that calls back in here runs the rest of the chain inside its
  // own call; the loops of the outer calls then find nothing left.
  while (_next < _entries.size()) {
    MSoapManagementCallback* cb = _entries[_next++].second;
    if (!cb->handleSoapCall(conn, this, args, function)) return false;
    _succeeded.push_back(cb);
  }
  return true;
}

void CallbackList::rollback(const FdConnectionData* conn, const xml::node& args, const Str& function) {
  for (auto it = _succeeded.rbegin(); it != _succeeded.rend(); ++it) (*it)->rollbackSoapCall(conn, args, function);
  _succeeded.clear();
}
