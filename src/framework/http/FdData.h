// FdData: the server's record of one open connection: the bytes read so far,
// where the header ends, the length the body must reach, what is being done
// with the connection, and the timer that drops it when the request is not
// complete in time.
//
// Ownership: the HTTPServer owns it. While a handler thread or a stream
// handler owns the connection, the record outlives the connection if the
// peer goes away (`_closed`), and is freed when that owner finishes.
// Threads: the loop's thread, except the fields a handler reads (the
// connection data and the request), which do not change once handed over.
#pragma once

#include <memory>

#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPRequest.h"
#include "util/Str.h"
#include "util/Timeout.h"

class HTTPServer;
class TcpPolledFd;

struct FdData {
  enum class State {
    kReading,     // collecting the header and body
    kDispatched,  // a handler thread owns the connection
    kStreaming,   // a stream handler owns the connection
    kReplying,    // the loop writes the reply, then closes
    kRefusing,    // the loop writes an error reply, then drains and closes
    kDraining,    // reply sent and our side shut: read and discard to EOF
  };

  // Fires requestTimeout seconds after the connection opened (or a reply
  // began): the connection is dropped.
  class Timer : public OneShotTimeout {
   public:
    Timer(HTTPServer* s, FdData* d) : _server(s), _data(d) {}
    void when_expired() override;

   private:
    HTTPServer* _server;
    FdData* _data;
  };

  FdData(HTTPServer* s, TcpPolledFd* p) : _pPolledFd(p), _timer(s, this) {}

  TcpPolledFd* _pPolledFd;
  FdConnectionData _conn;
  Str _buf;                        // bytes read, header first
  size_t _bodyStart = 0;           // 0 until the header's blank line is seen
  unsigned long _contentLength = 0;
  State _state = State::kReading;
  std::unique_ptr<HTTPRequest> _request;
  Str _out;                        // bytes the loop is writing
  bool _closed = false;            // the connection ended under its owner
  Timer _timer;
};
