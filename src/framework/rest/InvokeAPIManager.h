// InvokeAPIManager: the table of management functions and their handlers.
// A call names a function; its CallbackList runs the handlers registered
// for it (see CallbackList for the order, the chaining and the rollback).
//
// Ownership: instance() lives until exit; tests build their own. Handlers
// belong to their registrants. Threads: any thread; the table sits behind a
// mutex that is not held while handlers run (each call runs on a copy of
// the function's list).
#pragma once

#include <map>
#include <vector>

#include "framework/rest/CallbackList.h"
#include "util/Mutex.h"
#include "util/Str.h"

class InvokeAPIManager {
 public:
  static InvokeAPIManager& instance();
  InvokeAPIManager() = default;
  InvokeAPIManager(const InvokeAPIManager&) = delete;
  InvokeAPIManager& operator=(const InvokeAPIManager&) = delete;

  void registerInvokeAPIHandler(const Str& function, MSoapManagementCallback* cb, int priority);
  // False when `cb` was not registered for `function`.
  bool unregisterInvokeAPIHandler(const Str& function, MSoapManagementCallback* cb);
  // Registers `cb` for every function it names (getCallNames).
  void registerAll(MSoapManagementCallback* cb, int priority);

  // 1: done, the result in `out`; 0: a handler failed, its reason in `out`;
  // -1: no handler for `function` ("Unknown function '<name>'").
  int callInvokeAPIHandler(const FdConnectionData* conn, const xml::node& args, const Str& function, Str& out);
  // The functions that have handlers, in byte order.
  void getCallList(std::vector<Str>& out);

 private:
  Mutex _mutex;
  std::map<Str, CallbackList> _calls;
};
