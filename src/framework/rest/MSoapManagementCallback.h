// MSoapManagementCallback: a handler of management calls, each an XML
// element that names a function ("listInputs", "getConfigFile", ...).
// Handlers register per function with InvokeAPIManager; several handlers of
// one function form a CallbackList, run in priority order.
//
// Ownership: the registrant owns the handler and unregisters it before it
// goes. Threads: calls come from request threads, many at once.
#pragma once

#include <vector>

#include "util/Str.h"

class CallbackList;
struct FdConnectionData;
namespace xml {
class node;
}

class MSoapManagementCallback {
 public:
  virtual ~MSoapManagementCallback() = default;
  // Handles `function` called with the element `args`. Gives its result
  // (XML text) with list->setResult; may run the rest of the chain itself
  // with list->invokeNext. True on success; false with the reason given by
  // list->setError.
  virtual bool handleSoapCall(const FdConnectionData* conn, CallbackList* list, const xml::node& args,
                              const Str& function) = 0;
  // The functions InvokeAPIManager::registerAll registers it for.
  virtual void getCallNames(std::vector<Str>& /*out*/) const {}
  // Undoes a successful handleSoapCall when a later handler of the same
  // call failed.
  virtual void rollbackSoapCall(const FdConnectionData* /*conn*/, const xml::node& /*args*/,
                                const Str& /*function*/) {}
};
