#include "framework/rest/InvokeAPIManager.h"

#include "framework/rest/MSoapManagementCallback.h"
#include "util/Logger.h"

static Logger gLogger("InvokeAPIManager");

InvokeAPIManager& InvokeAPIManager::instance() {
  static InvokeAPIManager* gInstance = new InvokeAPIManager;
  return *gInstance;
}

void InvokeAPIManager::registerInvokeAPIHandler(const Str& function, MSoapManagementCallback* cb, int priority) {
  ScopedLock l(_mutex);
  _calls[function].add(cb, priority);
}

bool InvokeAPIManager::unregisterInvokeAPIHandler(const Str& function, MSoapManagementCallback* cb) {
  ScopedLock l(_mutex);
  auto it = _calls.find(function);
  if (it == _calls.end() || !it->second.remove(cb)) return false;
  if (it->second.empty()) _calls.erase(it);
  return true;
}

void InvokeAPIManager::registerAll(MSoapManagementCallback* cb, int priority) {
  std::vector<Str> names;
  cb->getCallNames(names);
  for (const Str& n : names) registerInvokeAPIHandler(n, cb, priority);
}

int InvokeAPIManager::callInvokeAPIHandler(const FdConnectionData* conn, const xml::node& args, const Str& function,
                                           Str& out) {
  CallbackList list;
  {
    ScopedLock l(_mutex);
    auto it = _calls.find(function);
    if (it == _calls.end()) {
      out = "Unknown function '" + function + "'";
      gLogger.warn("%s", out.c_str());
      return -1;
    }
    list = it->second;
  }
  if (!list.invoke(conn, args, function)) {
    out = list.error();
    gLogger.warn("Call of '%s' failed: %s", function.c_str(), out.c_str());
    return 0;
  }
  out = list.result();
  return 1;
}

void InvokeAPIManager::getCallList(std::vector<Str>& out) {
  ScopedLock l(_mutex);
  out.clear();
  for (const auto& kv : _calls) out.push_back(kv.first);
}
