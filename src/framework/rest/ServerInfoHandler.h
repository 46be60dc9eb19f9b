// ServerInfoHandler: the handler of restmap.conf stanzas of type "server":
// what a client asks first after logging in: who the server is and who it
// takes the caller for.
//
//   GET /services/server/info  ->
//     <response>
//     <serverName>NAME</serverName>
//     <startupTime>SECONDS SINCE 1970</startupTime>
//     <authSystem>Velmor | LDAP | Scripted</authSystem>
//     <user>THE CALLER</user>
//     <roles><role>Admin</role>...</roles>
//     </response>
//
// The server name is server.conf's [general] serverName, else the host name.
//
// Ownership: the service owns it; it only reads. Threads: any request thread.
#pragma once

#include <ctime>

#include "framework/rest/MRestHandler.h"
#include "util/Str.h"

class ServerInfoHandler : public MRestHandler {
 public:
  ServerInfoHandler(const Str& serverName, time_t startupTime) : _serverName(serverName), _startupTime(startupTime) {}
  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override;

  // [general] serverName of server.conf, else the host name.
  static Str configuredServerName();

 private:
  Str _serverName;
  time_t _startupTime;
};
