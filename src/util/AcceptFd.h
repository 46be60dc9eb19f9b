// AcceptFd: a listening socket on an EventLoop. Each accepted connection
// becomes a TcpPolledFd made by the factory, added through the acceptor's
// PolledFdManager and kept in its set of live connections until it ends;
// the acceptor then tells the factory (fdClosing), deletes the object and
// closes the socket.
//
// Ownership: the acceptor owns its connections and the listening socket
// handed to start(). Threads: the loop's thread, except
// removeFdFromAnywhere().
#pragma once

#include <set>

#include "util/PolledFd.h"
#include "util/PolledFdManager.h"

class TcpFdFactory;
class TcpPolledFd;

class AcceptFd : public PolledFd {
 public:
  AcceptFd(void* owner, EventLoop* loop, TcpFdFactory* factory);
  ~AcceptFd() override;

  // Makes the socket non-blocking and adds it to the loop.
  void start(PollableDescriptor listening);
  short defaultEvents() const override { return kReadEvents; }
  bool when_events(PollableDescriptor fd) override;
  void after_eof() override;

  void afterEof(PollableDescriptor fd, TcpPolledFd* p);
  void removeFdFromAnywhere(TcpPolledFd* p);
  void closeAllConnections();
  size_t connectionCount() const { return _live.size(); }
  PolledFdManager* manager() { return &_mgr; }

 private:
  void* _owner;
  EventLoop* _loop;
  TcpFdFactory* _factory;
  PolledFdManager _mgr;
  std::set<TcpPolledFd*> _live;
  PollableDescriptor _listen;
};
