// PipelineComponentCommHandler: the management entry of a running server.
// A call is an XML text
//
//   <call><name>kickProcessor</name><params>...</params></call>
//
// (the root element may have any name; it needs `name` and `params`
// children). The reply is XML text; failures answer "<error>...</error>".
//
// Served now: `kick` (PipelineComponent::kickAll), `kickProcessor`
// (params `pipeline` and `processor`; the whole params element goes to
// that processor's invokeSOAPCall), `getServerInfo`, and any name added by
// registerInvokeAPIHandler. Known but not yet served (they answer
// "<error>No such method name</error>"): userLogin, accessDataMap,
// accessDataStore, editProperty, setProperty, getConfigsByType,
// getPropertyMap, getUserPrefs, setUserPrefs, manageVelmor.
//
// Permission: each registered name carries a level; a caller below it gets
// "Permission check failed for '<name>'". Built-in names need no level.
//
// Ownership: points at the PipelineComponent (or finds it through
// ComponentData) and at LoaderInfo; both outlive it. Threads: any thread;
// the handler table is under a mutex, handlers run outside it.
#pragma once

#include <functional>
#include <map>

#include "util/Mutex.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class LoaderInfo;
class PipelineComponent;

class PipelineComponentCommHandler {
 public:
  using Handler = std::function<Str(const xml::node& params)>;
  static constexpr int kFullAccess = 0x7FFFFFFF;

  // `component` null means ComponentData's; `loaderInfo` null means the
  // process singleton.
  explicit PipelineComponentCommHandler(PipelineComponent* component = nullptr, LoaderInfo* loaderInfo = nullptr);

  // Serves one call; `callerLevel` is what the caller is allowed.
  Str invokeAPI(const Str& body, int callerLevel = kFullAccess);

  // Adds (or replaces) a method; a caller needs at least `level`.
  void registerInvokeAPIHandler(const Str& name, Handler handler, int level);

  // The text with &, < and > escaped, for element content (quotes stay, so
  // that messages keep their own wording).
  static Str xmlEscape(const Str& text);

 private:
  struct Entry {
    Handler handler;
    int level;
  };

  PipelineComponent* component();
  Str kickProcessor(const xml::node& params);
  Str getServerInfo();

  PipelineComponent* _component;
  LoaderInfo* _loaderInfo;
  Mutex _mutex;
  std::map<Str, Entry> _handlers;
};
