#include "framework/rest/ServerInfoHandler.h"

#include <unistd.h>

#include <set>

#include "framework/UserManager.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "libbundle/PropertyPages.h"

HTTPReply* ServerInfoHandler::handleRequest(const FdConnectionData& /*conn*/, const HTTPRequest* req,
                                            const Str& /*path*/, const RestMapData& /*stanza*/) {
  if (req->method() != "GET" && req->method() != "HEAD")
    return HTTPReply::createErrorXMLReply(405, "ERROR", "Only GET is allowed here");
  std::set<Str> roles;
  UserManager::instance().getUserType(req->user(), roles);
  Str body = "<response>\n";
  body += "<serverName>" + HTTPReply::xmlEscape(_serverName) + "</serverName>\n";
  body += Str::fromFormat("<startupTime>%lld</startupTime>\n", static_cast<long long>(_startupTime));
  body += "<authSystem>" + HTTPReply::xmlEscape(UserManager::instance().getAuthSystem()) + "</authSystem>\n";
  body += "<user>" + HTTPReply::xmlEscape(req->user()) + "</user>\n";
  body += "<roles>";
  for (const Str& r : roles) body += "<role>" + HTTPReply::xmlEscape(r) + "</role>";
  body += "</roles>\n</response>\n";
  return HTTPReply::createReply(200, body, "text/xml", false);
}

Str ServerInfoHandler::configuredServerName() {
  Str name;
  if (std::unique_ptr<PropertiesMap> general = PropertyPages::instance("server").get("general"))
    PropertyPages::layeredFind("serverName", *general, name);
  name.trimInPlace();
  if (!name.empty()) return name;
  char host[256] = "";
  if (gethostname(host, sizeof host - 1) != 0) return "localhost";
  return host;
}
