#include "framework/http/HTTPServerConfig.h"

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

// A positive number from the stanza; absent keeps `out`.
template <typename T>
bool readNumber(const PropertiesMap& map, const char* stanza, const char* key, T& out, Str& err) {
  Str text;
  if (!PropertyPages::layeredFind(key, map, text)) return true;
  T value{};
  if (!PropertyPages::layeredFind(key, map, value) || value <= 0) {
    err = Str::fromFormat("invalid value '%s' for [%s] %s", text.c_str(), stanza, key);
    return false;
  }
  out = value;
  return true;
}

bool readPort(const PropertiesMap& map, const char* stanza, const char* key, int& out, Str& err) {
  Str text;
  if (!PropertyPages::layeredFind(key, map, text)) return true;
  int value = -1;
  if (!PropertyPages::layeredFind(key, map, value) || value < 0 || value > 65535) {
    err = Str::fromFormat("invalid port '%s' for [%s] %s", text.c_str(), stanza, key);
    return false;
  }
  out = value;
  return true;
}

}  // namespace

bool HTTPServerConfig::anySSL() const {
  for (const HTTPServerPort& p : ports)
    if (p.ssl) return true;
  return false;
}

bool HTTPServerConfig::fromConf(HTTPServerConfig& cfg, Str& err) {
  PropertyPages& pages = PropertyPages::instance("server");
  PropertiesMap general, ssl, limits;
  pages.fillLayers(general, "general", false);
  pages.fillLayers(ssl, "sslConfig", false);
  pages.fillLayers(limits, "httpServer", false);

  int mgmtPort = 8089, sslPort = 0;
  bool enableSsl = false;
  if (!readPort(general, "general", "mgmtPort", mgmtPort, err)) return false;
  if (!readPort(ssl, "sslConfig", "sslPort", sslPort, err)) return false;
  PropertyPages::layeredFind("enableSsl", ssl, enableSsl);

  cfg.ports.clear();
  cfg.ports.push_back({mgmtPort, enableSsl});
  if (sslPort > 0) {
    if (sslPort == mgmtPort) {
      err = Str::fromFormat("[sslConfig] sslPort %d is the management port", sslPort);
      return false;
    }
    cfg.ports.push_back({sslPort, true});
  }

  Str cert;
  cfg.certFile.clear();
  if (PropertyPages::layeredFind("serverCert", ssl, cert)) {
    if (cert.startswith('/'))
      cfg.certFile = cert;
    else
      cfg.certFile = Str(LoaderInfo::getInstance().getHomePath()) + "/etc/auth/" + cert;
  }
  cfg.keyFile.clear();
  cfg.password.clear();
  PropertyPages::layeredFind("sslPassword", ssl, cfg.password);
  cfg.cipherList.clear();
  PropertyPages::layeredFind("cipherSuite", ssl, cfg.cipherList);
  if (cfg.anySSL() && cfg.certFile.empty()) {
    err = "SSL is enabled but [sslConfig] serverCert is not set";
    return false;
  }

  return readNumber(limits, "httpServer", "maxHeaderBytes", cfg.maxHeaderBytes, err) &&
         readNumber(limits, "httpServer", "maxContentLength", cfg.maxContentLength, err) &&
         readNumber(limits, "httpServer", "requestTimeout", cfg.requestTimeout, err) &&
         readNumber(limits, "httpServer", "maxThreads", cfg.maxThreads, err);
}
