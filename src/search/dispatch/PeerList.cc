#include "search/dispatch/PeerList.h"

#include <ctype.h>
#include <stdlib.h>

#include <memory>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"

std::vector<Str> PeerList::splitServers(const Str& text) {
  std::vector<Str> out;
  Str word;
  auto flush = [&] {
    while (!word.empty() && word.back() == '/') word.pop_back();
    if (!word.empty()) out.push_back(word);
    word.clear();
  };
  for (char c : text) {
    if (c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r')
      flush();
    else
      word += c;
  }
  flush();
  return out;
}

PeerList PeerList::fromProperties(const PropertiesMap& stanza) {
  PeerList p;
  Str v;
  if (stanza.get("servers", v)) p.servers = splitServers(v);
  stanza.get("username", p.username);
  stanza.get("password", p.password);
  auto seconds = [&](const char* key, int& ms) {
    Str text;
    if (!stanza.get(key, text) || text.empty()) return;
    char* end = nullptr;
    double d = strtod(text.c_str(), &end);
    if (end && *end == '\0' && d > 0 && d < 86400 * 7) ms = static_cast<int>(d * 1000);
  };
  if (stanza.get("sslVerifyServerCert", v)) {
    Str l = v;
    for (char& c : l) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    p.verifyPeer = !(l == "false" || l == "0" || l == "no" || l == "f");
  }
  stanza.get("caCertFile", p.caFile);
  p.timeouts.connectMs = 10000;
  p.timeouts.readMs = 600000;
  seconds("connectTimeout", p.timeouts.connectMs);
  seconds("receiveTimeout", p.timeouts.readMs);
  return p;
}

PeerList PeerList::fromConfig() {
  std::unique_ptr<PropertiesMap> stanza = PropertyPages::instance("server").get("distributedSearch");
  if (!stanza) return PeerList();
  return fromProperties(*stanza);
}
