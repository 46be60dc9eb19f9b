// PeerList: the other servers a search is spread over, and how to reach
// them, from the stanza "distributedSearch" of server.conf:
//
//   [distributedSearch]
//   servers = https://idx1:8089, https://idx2:8089   (blank or comma separated)
//   username = searcher        # logs in to every peer with this account;
//   password = secret          # empty: the caller's session key is passed on
//   connectTimeout = 10        # seconds to open a connection (default 10)
//   receiveTimeout = 600       # seconds a peer may stay silent (default 600)
//   sslVerifyServerCert = true # check the certificates of https peers
//   caCertFile = /path/ca.pem  # the authority to check them with (default:
//                              # the system's)
//
// A plain value, copied freely; any thread.
#pragma once

#include <vector>

#include "framework/http/HTTPClient.h"
#include "util/Str.h"

class PropertiesMap;

struct PeerList {
  std::vector<Str> servers;  // base URLs, without a trailing "/"
  Str username, password;
  HTTPClient::Timeouts timeouts;
  bool verifyPeer = true;
  Str caFile;

  bool empty() const { return servers.empty(); }
  // The servers of a list text ("a, b c"); empty words are dropped and a
  // trailing "/" is cut.
  static std::vector<Str> splitServers(const Str& text);
  // The peers of a stanza's properties.
  static PeerList fromProperties(const PropertiesMap& stanza);
  // The peers of server.conf (none when the stanza is missing).
  static PeerList fromConfig();
};
