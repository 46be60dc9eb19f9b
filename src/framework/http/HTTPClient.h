// HTTPClient: a blocking HTTP/1.1 client for talking to peer servers: one
// connection at a time, plain or TLS (an "https:" URL), with time limits
// on connecting, reading and writing. Each request closes its connection
// ("Connection: close"); execute...() connects and disconnects by itself.
//
// TLS verifies the peer's certificate against the system's trust store (or
// setCAFile) and the URL's host name, unless setVerifyPeer(false) is used
// for peers with self-signed certificates.
//
// Ownership: owns its socket and TLS session. Threads: one at a time.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "framework/http/HTTPRequestReply.h"
#include "util/PollableDescriptor.h"
#include "util/Str.h"

class SSLContext;
class SSLNetworkConnection;

class HTTPClient {
 public:
  struct Timeouts {
    int connectMs = 10000;
    int readMs = 60000;
    int writeMs = 60000;
  };

  // "http[s]://host[:port][/path[?query]]"; the host may be "[v6addr]".
  struct URL {
    Str scheme;  // "http" or "https"
    Str host;
    int port = 0;
    Str pathAndQuery = "/";
    bool parse(const Str& url, Str& err);
    bool ssl() const { return scheme == "https"; }
    Str hostHeader() const;  // host, with ":port" unless it is the default
  };

  HTTPClient();
  ~HTTPClient();
  HTTPClient(const HTTPClient&) = delete;
  HTTPClient& operator=(const HTTPClient&) = delete;

  void setVerifyPeer(bool on) { _verify = on; }
  void setCAFile(const Str& pemFile) { _caFile = pemFile; }

  // Connects to the URL's host and port (and runs the TLS handshake).
  bool connect(const Str& url, const Timeouts& t, Str& err);
  bool isConnected() const { return _fd.valid(); }
  void disconnect();
  const URL& url() const { return _url; }

  // On a connected client: writes everything within the write limit.
  bool sendAll(const char* data, size_t size, Str& err);
  // Reads what has come within the read limit: the byte count, 0 at the
  // end of the stream, -1 with `err` on failure or time-out.
  long readSome(char* buf, size_t size, Str& err);

  // Connects, sends the request, reads the whole reply into `reply`,
  // disconnects. False with `err` on any failure (an HTTP error status is
  // not a failure: see reply.status()).
  bool execute(const Str& method, const Str& url, const Str& body, const Str& contentType, const Timeouts& t,
               HTTPRequestReply& reply, Str& err,
               const std::vector<std::pair<Str, Str>>& headers = {});
  bool executeHTTPGet(const Str& url, const Timeouts& t, HTTPRequestReply& reply, Str& err) {
    return execute("GET", url, Str(), Str(), t, reply, err);
  }
  // POSTs `body` as "application/x-www-form-urlencoded" unless a type is given.
  bool executeHTTPPost(const Str& url, const Str& body, const Timeouts& t, HTTPRequestReply& reply, Str& err,
                       const Str& contentType = "application/x-www-form-urlencoded") {
    return execute("POST", url, body, contentType, t, reply, err);
  }

 private:
  bool connectTo(const Str& host, int port, int ms, Str& err);
  bool startTLS(Str& err);

  URL _url;
  Timeouts _t;
  bool _verify = true;
  Str _caFile;
  PollableDescriptor _fd;
  std::unique_ptr<SSLContext> _ctx;
  std::unique_ptr<SSLNetworkConnection> _ssl;
};
