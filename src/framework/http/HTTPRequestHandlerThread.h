// HTTPRequestHandlerThread: the thread that serves one request: it calls
// the server's request handler, turns the reply into bytes and hands them
// back to the server, which writes them on its loop and closes the
// connection. The thread then hands itself to the server to be joined and
// deleted on the loop (or at shutdown), so no finished thread is left
// behind.
//
// Ownership: made by the server, which deletes it after joining it.
// Threads: main() runs on the thread itself; the request and connection
// data it reads are not changed by anyone while it runs.
#pragma once

#include "util/Thread.h"

class HTTPServer;
class MHttpRequestHandler;
class TcpPolledFd;
struct FdData;

class HTTPRequestHandlerThread : public Thread {
 public:
  HTTPRequestHandlerThread(HTTPServer* server, FdData* data, MHttpRequestHandler* handler);
  ~HTTPRequestHandlerThread() override;

  void main() override;

 private:
  HTTPServer* _pServer;
  FdData* _pFdData;
  TcpPolledFd* _pPolledFd;
  MHttpRequestHandler* _handler;
};
