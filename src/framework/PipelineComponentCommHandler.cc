#include "framework/PipelineComponentCommHandler.h"

#include <unistd.h>

#include <exception>

#include "framework/ComponentData.h"
#include "framework/PipelineComponent.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlTreeParser.h"
#include "util/XmlEscape.h"

#ifndef VELMOR_BUILD_NUMBER
#define VELMOR_BUILD_NUMBER 1
#endif

static Logger gLogger("PipelineComponentCommHandler");

namespace {

const char* const kNotServed[] = {"userLogin",     "accessDataMap",    "accessDataStore", "editProperty",
                                  "setProperty",   "getConfigsByType", "getPropertyMap",  "getUserPrefs",
                                  "setUserPrefs",  "manageVelmor"};

Str errorReply(const Str& text) { return "<error>" + PipelineComponentCommHandler::xmlEscape(text) + "</error>"; }

Str childText(const xml::node& n, const char* name) {
  std::string v;
  n.child_content(name, v);
  return Str(v).trim();
}

}  // namespace

PipelineComponentCommHandler::PipelineComponentCommHandler(PipelineComponent* component, LoaderInfo* loaderInfo)
    : _component(component), _loaderInfo(loaderInfo) {}

PipelineComponent* PipelineComponentCommHandler::component() {
  return _component ? _component : ComponentData::instance().getPipelineComponent();
}

Str PipelineComponentCommHandler::xmlEscape(const Str& text) {
  return xmlEscaped(text, false);
}

void PipelineComponentCommHandler::registerInvokeAPIHandler(const Str& name, Handler handler, int level) {
  ScopedLock l(_mutex);
  _handlers[name] = Entry{std::move(handler), level};
}

Str PipelineComponentCommHandler::invokeAPI(const Str& body, int callerLevel) {
  if (Str(body).trim().empty()) return "<error>No data</error>";
  xml::tree_parser parser(body.data(), body.size(), false);
  if (parser.failed()) return "<error>No data</error>";
  xml::node call = parser.get_document().get_root_node();
  if (call.empty()) return "<error>No data</error>";

  xml::node nameNode = call.find("name");
  if (nameNode.empty()) return errorReply("Couldn't find 'name' tag in invokeAPI");
  Str name = Str(nameNode.get_content()).trim();
  xml::node params = call.find("params");
  if (params.empty()) return errorReply(Str::fromFormat("Couldn't find 'params' tag in invokeAPI call named %s", name.c_str()));

  Entry entry;
  bool registered = false;
  {
    ScopedLock l(_mutex);
    auto it = _handlers.find(name);
    if (it != _handlers.end()) {
      entry = it->second;
      registered = true;
    }
  }
  try {
    if (registered) {
      if (callerLevel < entry.level) return errorReply(Str::fromFormat("Permission check failed for '%s'", name.c_str()));
      return entry.handler(params);
    }
    if (name == "kick") {
      PipelineComponent* c = component();
      if (!c) return "<error>No data</error>";
      c->kickAll();
      return "<result>ok</result>";
    }
    if (name == "kickProcessor") return kickProcessor(params);
    if (name == "getServerInfo") return getServerInfo();
    for (const char* n : kNotServed) {
      if (name == n) return "<error>No such method name</error>";
    }
  } catch (const std::exception& e) {
    gLogger.error("invokeAPI call %s failed: %s", name.c_str(), e.what());
    return errorReply(e.what());
  }
  return errorReply(Str::fromFormat("No such method '%s'", name.c_str()));
}

Str PipelineComponentCommHandler::kickProcessor(const xml::node& params) {
  Str pipelineName = childText(params, "pipeline");
  Str processorName = childText(params, "processor");
  PipelineComponent* c = component();
  Pipeline* p = c ? c->findPipeline(pipelineName) : nullptr;
  if (!p) return errorReply(Str::fromFormat("No such pipeline '%s'", pipelineName.c_str()));
  Str out;
  if (!p->invokeProcessorCall(processorName, params, out)) {
    return errorReply(
        Str::fromFormat("No such processor '%s' in pipeline '%s'", processorName.c_str(), pipelineName.c_str()));
  }
  return out;
}

Str PipelineComponentCommHandler::getServerInfo() {
  LoaderInfo& li = _loaderInfo ? *_loaderInfo : LoaderInfo::getInstance();
  Str host = li.getHost();
  if (host.empty()) {
    char buf[256] = {0};
    if (gethostname(buf, sizeof(buf) - 1) == 0) host = buf;
  }
  Str out = "<serverInfo>";
  out += Str::fromFormat("<version>%d</version>", VELMOR_BUILD_NUMBER);
  out += "<host>" + xmlEscape(host) + "</host>";
  out += "<velmorHome>" + xmlEscape(li.getHomePath()) + "</velmorHome>";
  out += Str::fromFormat("<startTime>%ld</startTime>", long(li.getStartupTime()));
  out += Str::fromFormat("<pid>%ld</pid>", long(li.getPid()));
  out += "</serverInfo>";
  return out;
}
