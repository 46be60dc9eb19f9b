// HTTPServerConfig: what the HTTP server listens on and the limits it keeps:
// the ports (each plain or SSL), the certificate, key, key password and
// cipher list for the SSL ports, and the per-request limits (header bytes,
// body length, seconds to complete a request, concurrent handler threads).
//
// fromConf() fills it from server.conf: [general] mgmtPort, [sslConfig]
// enableSsl / serverCert / sslPassword / cipherSuite / sslPort, and
// [httpServer] maxHeaderBytes / maxContentLength / requestTimeout /
// maxThreads. A plain value; one thread at a time.
#pragma once

#include <vector>

#include "util/Str.h"

struct HTTPServerPort {
  int port = 0;  // 0: any free port (tests read it back from the server)
  bool ssl = false;
};

class HTTPServerConfig {
 public:
  std::vector<HTTPServerPort> ports;
  Str certFile;    // PEM certificate chain, absolute
  Str keyFile;     // PEM private key, absolute; "" means the certificate file
  Str password;    // of the private key; never logged
  Str cipherList;  // OpenSSL syntax; "" keeps OpenSSL's default

  unsigned long maxHeaderBytes = 65536;             // beyond: 431, connection closed
  unsigned long maxContentLength = 100UL << 20;     // beyond: 413
  int requestTimeout = 30;                          // seconds to complete a request
  int maxThreads = 256;                             // beyond: 503 "Server busy"

  bool anySSL() const;

  // Reads server.conf (the process-wide "server" property pages). The
  // certificate path is taken relative to $VELMOR_HOME/etc/auth unless it
  // is absolute. False with `err` set on a value that does not parse; `cfg`
  // is then left partly filled.
  static bool fromConf(HTTPServerConfig& cfg, Str& err);
};
