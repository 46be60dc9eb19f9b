#include "framework/rest/HTTPScriptHandler.h"

#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/rest/RestMapData.h"
#include "libbundle/PropertyPages.h"
#include "util/ExternalProcessGroup.h"
#include "util/Logger.h"
#include "util/ScopedFileDescriptor.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlNode.h"

static Logger gLogger("HTTPScriptHandler");

namespace {

// An anonymous temporary file: made and unlinked at once, so nothing is
// left behind whatever happens to the request.
ScopedFileDescriptor anonymousFile() {
  char tmpl[] = "/tmp/velmor-rest-script-XXXXXX";
  int fd = mkstemp(tmpl);
  if (fd < 0) return ScopedFileDescriptor();
  unlink(tmpl);
  return ScopedFileDescriptor(fd);
}

Str lastLine(const Str& text) {
  Str last;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == Str::npos) end = text.size();
    Str line = text.substr(start, end - start);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
    if (!line.empty()) last = line;
    start = end + 1;
  }
  return last;
}

void addParams(xml::node& parent, const HTTPRequest::Params& params) {
  for (const auto& kv : params)
    for (const Str& v : kv.second) {
      xml::node p = parent.append_element("param", nullptr);
      p.set_attribute("name", kv.first);
      p.set_content(v);
    }
}

}  // namespace

void HTTPScriptHandler::createXMLRequest(const FdConnectionData& /*conn*/, const Str& path, const Str& user,
                                         const HTTPRequest* req, Str& out) {
  xml::init::ensure();
  xml::document doc("request");
  xml::node root = doc.get_root_node();
  root.append_element("method", nullptr).set_content(req->method());
  root.append_element("path", nullptr).set_content(path);
  root.append_element("user", nullptr).set_content(user);
  xml::node params = root.append_element("params", nullptr);
  addParams(params, req->getParams());
  addParams(params, req->postParams());
  root.append_element("body", nullptr).set_content(req->body());
  std::string s;
  doc.save_to_string(s, "UTF-8", true);
  out = s;
}

void HTTPScriptHandler::setScriptDirs(const std::vector<Pathname>& dirs) {
  ScopedLock l(_mutex);
  _dirs = dirs;
}

Pathname HTTPScriptHandler::resolveScript(const Str& script) {
  if (script.empty() || script.find("..") != Str::npos) return Pathname();
  Pathname p(script);
  if (p.isAbsolute()) return p.x_ok() ? p : Pathname();
  ScopedLock l(_mutex);
  for (const Pathname& d : _dirs) {
    Pathname c = d / "bin" / script;
    if (c.x_ok()) return c;
  }
  return Pathname();
}

HTTPReply* HTTPScriptHandler::handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& /*path*/,
                                            const RestMapData& stanza) {
  Pathname script = resolveScript(stanza.script());
  if (script.empty()) {
    gLogger.error("Script '%s' of stanza %s not found", stanza.script().c_str(), stanza.stanzaName().c_str());
    return HTTPReply::createErrorXMLReply(500, "ERROR", "Script not found: " + stanza.script());
  }
  Str doc;
  createXMLRequest(conn, req->path(), req->user(), req, doc);
  ScopedFileDescriptor in = anonymousFile(), out = anonymousFile(), err = anonymousFile();
  if (!in.isValid() || !out.isValid() || !err.isValid() || !in.writeFully(doc) || !in.seek_set(0)) {
    gLogger.error("Cannot create the temporary files of script %s: %m", script.c_str());
    return HTTPReply::createErrorXMLReply(500, "ERROR", "Cannot run script " + stanza.script());
  }
  long limit = kDefaultTimeoutSecs;
  PropertyPages::layeredFind("scriptTimeout", stanza.props(), limit);
  ExternalProcessStatus status = ExternalProcessStatus::running();
  bool timedOut = false;
  try {
    ExternalProcessGroup group;
    ExternalProcessToken token = group.startOrSpawn({script}, in, out, err);
    // Waits in short naps so that a script that hangs cannot keep the
    // request's thread for good.
    const long long deadlineMs = static_cast<long long>(limit) * 1000;
    long long waitedMs = 0;
    for (status = token.getStatus(false); status.isRunning(); status = token.getStatus(false)) {
      if (waitedMs >= deadlineMs) {
        token.kill(SIGKILL);
        status = token.getStatus(true);
        timedOut = true;
        break;
      }
      struct timespec nap = {0, 20 * 1000 * 1000};
      nanosleep(&nap, nullptr);
      waitedMs += 20;
    }
  } catch (const std::exception& e) {
    gLogger.error("Script %s could not be started: %s", script.c_str(), e.what());
    return HTTPReply::createErrorXMLReply(500, "ERROR", "Cannot run script " + stanza.script());
  }
  if (timedOut) {
    gLogger.warn("Script %s did not finish within %ld seconds and was killed", script.c_str(), limit);
    return HTTPReply::createErrorXMLReply(500, "ERROR",
                                          Str::fromFormat("Script %s did not finish within %ld seconds",
                                                          stanza.script().c_str(), limit));
  }
  if (!status.statusOk()) {
    Str errText;
    err.seek_set(0);
    err.readAll(errText);
    Str why = lastLine(errText);
    if (why.empty()) why = status.describeStatus();
    gLogger.warn("Script %s failed: %s", script.c_str(), why.c_str());
    return HTTPReply::createErrorXMLReply(500, "ERROR", why);
  }
  Str body;
  out.seek_set(0);
  out.readAll(body);
  return HTTPReply::createReply(200, body, "text/xml", false);
}
