// HTTPServer: the service's HTTP(S) server. It listens on the configured
// ports of an EventLoop, reads each request on the loop, and serves it on a
// thread of its own through the MHttpRequestHandler it was given (or hands
// the connection to the MHTTPStreamHandler registered for the path). Every
// reply closes its connection.
//
// DESIGN. init() loads the SSL context (a bad certificate or password
// leaves the SSL ports plain) and binds the ports; go() puts an AcceptFd on
// each one, on the loop's thread. Each accepted socket becomes a
// TcpRawDataFd or SSLRawDataFd whose bytes come to rawTcpDataAvailable(),
// which keeps an FdData per connection: the header is collected up to its
// blank line (beyond maxHeaderBytes: 431), the method checked (405, or 400
// when malformed), Content-Length read (beyond maxContentLength: 413), and
// the body awaited (a client that sent "Expect: 100-continue" is told to go
// on). A connection whose request is not complete within
// requestTimeout seconds is dropped. A complete request goes to a stream
// handler when one is registered for its path; otherwise the connection is
// marked owned by a worker, so the loop leaves it alone, and a
// HTTPRequestHandlerThread is started (beyond maxThreads: 503 "Server
// busy"). The thread makes the reply and puts it, with itself, on the done
// list; a zero-length callback on the loop writes the reply without
// blocking, closes the connection once written, and joins and deletes the
// thread. Error replies made on the loop shut our side of the connection
// after writing and read to EOF, so the client sees the reply rather than a
// reset. The loop owns all FdData; a connection that ends while a thread or
// stream owns it keeps its FdData (marked closed) until that owner is done.
//
// Threads: init() and go() from a controlling thread, before the loop runs
// or from another thread while it runs; handleShutdown() likewise, or on
// the loop's thread for the process-wide instance() (an object a test
// makes must be shut down and destroyed from another thread, since work
// posted to the loop may still name it). registerStreamHandler(),
// findStreamHandler(), setRequestHandler(), writeToStream(),
// releaseStream(), getUrlBase() and the request table from any thread; the
// TcpFdFactory and TcpRawDataFdCallback members on the loop's thread.
// handleShutdown() waits up to a minute for the handler threads.
// REQUIRES: handleShutdown() (or the destructor) before the loop is gone.
#pragma once

#include <atomic>
#include <map>
#include <set>
#include <memory>
#include <vector>

#include "framework/http/FdData.h"
#include "framework/http/HTTPServerConfig.h"
#include "util/CallbackAfterEventService.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/PollableDescriptor.h"
#include "util/SocketAddress.h"
#include "util/Str.h"
#include "util/TcpFdFactory.h"
#include "util/TcpRawDataFdCallback.h"

class AcceptFd;
class EventLoop;
class HTTPRequest;
class HTTPRequestHandlerThread;
class MHTTPStreamHandler;
class MHttpRequestHandler;
class SSLContext;
class TcpPolledFd;
class HTTPServer : public TcpFdFactory, public TcpRawDataFdCallback {
 public:
  HTTPServer();
  ~HTTPServer() override;
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  // The service's server, made on first use and never destroyed. Tests make
  // their own objects instead.
  static HTTPServer* instance();

  // The handler of every request no stream handler takes; not owned.
  void setRequestHandler(MHttpRequestHandler* h);

  // Sets up SSL and binds the ports. False when a port cannot be bound or
  // VELMOR_BINDIP does not resolve.
  bool init(const HTTPServerConfig& cfg);
  // Starts accepting on `loop`. False when init() did not bind.
  bool go(EventLoop* loop);
  // Stops accepting, waits for the handler threads, reaps them and closes
  // every connection. Safe to call twice.
  void handleShutdown();
  // Closes every connection and listening socket (on the loop's thread).
  void shutdownAllFds();

  // The port the i-th configured port is bound to (useful when it was 0),
  // 0 if none; whether that port speaks SSL.
  int boundPort(size_t i) const;
  bool portIsSSL(size_t i) const;
  bool sslEnabled() const { return _sslCtx != nullptr; }
  const HTTPServerConfig& config() const { return _cfg; }

  // Stream handlers by request path (exact match; a registered path that
  // ends in "/" also takes every path below it).
  void registerStreamHandler(const Str& path, MHTTPStreamHandler* h);
  void unregisterStreamHandler(const Str& path);
  MHTTPStreamHandler* findStreamHandler(const Str& path) const;
  // For a stream handler: writes to its connection (waits until written or
  // the write times out); false once the peer is gone. From any thread.
  bool writeToStream(TcpPolledFd* p, const char* data, unsigned long size);
  // Ends a stream: closes the connection and frees its record.
  void releaseStream(TcpPolledFd* p);

  // The table of requests being served by threads.
  void addRequest(TcpPolledFd* p, MHttpRequestHandler* h);
  void removeRequest(TcpPolledFd* p);
  TcpPolledFd* getPolledFd(PollableDescriptor fd) const;
  size_t activeThreads() const;

  // "http://host" or "https://host" for absolute links in a reply, from the
  // request's Host header (the bound address when it has none).
  void getUrlBase(const HTTPRequest* req, Str& out) const;

  // The Content-Length of a header block: 0 when absent, -1 when malformed
  // or given twice with different values, -2 when the body is chunked.
  static long long getContentLength(const Str& header);
  // 0 a known method, 405 a well-formed unknown one, 400 a malformed one.
  static int validateMethod(const Str& method);

  // --- TcpFdFactory, TcpRawDataFdCallback (the loop's thread) ---
  TcpPolledFd* create(void* owner, PollableDescriptor fd, SocketAddress const& from) override;
  void fdClosing(void* owner, PollableDescriptor fd, TcpPolledFd* p) override;
  long rawTcpDataAvailable(PollableDescriptor fd, char const* data, unsigned long size) override;
  void rawTcpWriteCompleted(PollableDescriptor fd, int error, long bytes) override;

  // --- for FdData::Timer and HTTPRequestHandlerThread ---
  void requestTimedOut(FdData* d);
  // From the handler thread, last thing in main(): the reply to write.
  void requestFinished(HTTPRequestHandlerThread* t, FdData* d, TcpPolledFd* p, Str&& reply);

 private:
  struct Listener {
    HTTPServerPort cfg;
    PollableDescriptor sock;
    int boundPort = 0;
    AcceptFd* acceptor = nullptr;
  };
  struct Done {
    HTTPRequestHandlerThread* thread;
    FdData* data;
    TcpPolledFd* fd;
    Str reply;
  };
  class DoneCallback : public CallbackAfterEventService {
   public:
    explicit DoneCallback(HTTPServer* s) : _s(s) {}
    void when_expired() override;

   private:
    HTTPServer* _s;
  };

  bool setupSSL();
  bool bindPorts();
  bool setupAccepts();
  bool resolveBindAddress(SocketAddress& out);
  // Parses and dispatches once the request is whole; false: close now.
  bool requestComplete(FdData* d);
  void executeThreadedRequest(FdData* d);
  void startStream(FdData* d, MHTTPStreamHandler* h);
  // Writes an error reply from the loop, then shuts down and drains.
  void refuse(FdData* d, int status, const char* text);
  void startWrite(FdData* d, FdData::State state);
  void closeConnection(FdData* d);
  void deleteFdData(FdData* d);
  FdData* findByFd(PollableDescriptor fd) const;
  void processDone();
  void logRequest(const FdData* d) const;

  HTTPServerConfig _cfg;
  EventLoop* _loop = nullptr;
  std::atomic<MHttpRequestHandler*> _handler{nullptr};
  std::unique_ptr<SSLContext> _sslCtx;
  std::vector<Listener> _listeners;
  bool _bound = false;
  bool _accepting = false;
  std::atomic<bool> _shutDown{false};

  // Loop thread only.
  std::map<int, FdData*> _byFd;
  std::map<TcpPolledFd*, FdData*> _byPolledFd;  // includes closed records still owned

  mutable Mutex _mutex;  // guards what follows
  ConditionBaseClass _cond;
  std::map<Str, MHTTPStreamHandler*> _streamHandlers;
  std::map<TcpPolledFd*, MHttpRequestHandler*> _requests;
  std::set<const HTTPRequest*> _sslRequests;
  size_t _threads = 0;
  std::vector<Done> _done;
  DoneCallback _doneCallback{this};
};
