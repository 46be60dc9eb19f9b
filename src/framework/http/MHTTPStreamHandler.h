// MHTTPStreamHandler: a handler that takes a whole connection over instead
// of returning one reply, for replies that are written bit by bit (a
// search streaming its results). Registered with the server by path.
//
// The server calls handleStream() on its loop's thread once the request is
// complete. From then on the handler owns the connection: it writes with
// HTTPServer::writeToStream() from any thread (status line and headers
// included) and ends with HTTPServer::releaseStream(), which closes it.
// `fd` is a handle for those two calls only. If the peer goes away first,
// writeToStream() returns false; releaseStream() is still required.
//
// Threads: handleStream() on the loop's thread; it must not block.
#pragma once

class HTTPServer;
class TcpPolledFd;
struct FdConnectionData;

class MHTTPStreamHandler {
 public:
  virtual ~MHTTPStreamHandler() = default;
  // `conn` (and its request) stays valid until releaseStream().
  virtual void handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) = 0;
};
