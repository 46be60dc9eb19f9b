// TcpPolledFd: a connection accepted by an AcceptFd, with the three ways to
// write to it. The AcceptFd sets the owner pointers when it adopts the
// object; afterEof() hands the connection back to it for deferred removal
// (the object is then deleted and the descriptor closed by the acceptor).
//
// A worker thread may take over a connection (setOwnedByWorker): the loop
// then leaves its events alone until the worker gives it back.
// Threads: the loop's thread, except blockingWriteFromAnywhere().
#pragma once

#include <atomic>

#include "util/PolledFd.h"

class AcceptFd;
class PolledFdManager;

class TcpPolledFd : public PolledFd {
 public:
  virtual bool blockingWrite(char const* data, unsigned long size, int timeoutMs) = 0;
  // False when the connection failed.
  virtual bool nonblockingWrite(char const* data, unsigned long size) = 0;
  virtual bool blockingWriteFromAnywhere(char const* data, unsigned long size) = 0;
  // Called by the acceptor once the object is on its manager; negative
  // means give up the connection (the SSL handshake uses it).
  virtual int afterAccept(PollableDescriptor /*fd*/) { return 0; }

  void setOwnedByWorker(bool on) { _ownedByWorker.store(on); }
  bool ownedByWorker() const { return _ownedByWorker.load(); }
  void setAcceptor(AcceptFd* a, PolledFdManager* m, PollableDescriptor sock) {
    _acceptFd = a;
    _pMgr = m;
    _sock = sock;
  }
  // The connection's socket (valid before the object is active, too).
  PollableDescriptor socket() const { return _sock; }
  // Ends the connection through its acceptor (deferred); stops its events.
  void afterEof();

 protected:
  AcceptFd* _acceptFd = nullptr;
  PolledFdManager* _pMgr = nullptr;
  PollableDescriptor _sock;

 private:
  std::atomic<bool> _ownedByWorker{false};
  bool _ending = false;
};
