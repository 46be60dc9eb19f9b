#include "util/AcceptFd.h"

#include <cerrno>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"
#include "util/TcpFdFactory.h"
#include "util/TcpPolledFd.h"

static Logger gLogger("AcceptFd");

namespace {
// Shared by every acceptor: deletes the connection and closes its socket.
class AcceptFdRemoveCallback : public PolledFdManagerRemoveCallback {
 public:
  void after_remove(PolledFd* p, PollableDescriptor) override {
    PollableDescriptor sock = static_cast<TcpPolledFd*>(p)->socket();
    delete p;
    sock.close();
  }
};
AcceptFdRemoveCallback gRemoveCallback;
}  // namespace

AcceptFd::AcceptFd(void* owner, EventLoop* loop, TcpFdFactory* factory)
    : _owner(owner), _loop(loop), _factory(factory), _mgr(loop) {}

AcceptFd::~AcceptFd() {
  closeAllConnections();
  if (isActive()) _loop->removeActivePolledFd(this);
  // Pending removals must run now: the manager dies with us.
  if (_mgr.isActive()) {
    _loop->remove(&_mgr);
    _mgr.when_expired();
  }
  _listen.close();
}

void AcceptFd::start(PollableDescriptor listening) {
  _listen = listening;
  listening.setNonblock(true);
  _loop->add(this, listening);
}

bool AcceptFd::when_events(PollableDescriptor fd) {
  SocketAddress from;
  PollableDescriptor c = fd.accept(&from);
  if (!c.valid()) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return false;
    gLogger.error("Closing socket errno=%d", errno);
    return true;
  }
  c.setNonblock(true);
  gLogger.debug("Creating polled fd from factory");
  TcpPolledFd* p = _factory->create(_owner, c, from);
  if (p == nullptr) {
    c.close();
    return false;
  }
  p->setAcceptor(this, &_mgr, c);
  _mgr.add(p, c);
  _live.insert(p);
  if (p->afterAccept(c) < 0) {
    afterEof(c, p);
    return false;
  }
  gLogger.debug("Accepted connection");
  return false;
}

void AcceptFd::after_eof() { _listen.close(); }

void AcceptFd::afterEof(PollableDescriptor fd, TcpPolledFd* p) {
  _loop->assertInThread();
  if (_live.erase(p) == 0) return;
  _factory->fdClosing(_owner, fd.valid() ? fd : p->socket(), p);
  _mgr.remove(p, &gRemoveCallback);
}

namespace {
class RemoveFdActor : public InThreadActor {
 public:
  explicit RemoveFdActor(TcpPolledFd* p) : _p(p) {}
  void run() override { _p->afterEof(); }

 private:
  TcpPolledFd* _p;
};
}  // namespace

void AcceptFd::removeFdFromAnywhere(TcpPolledFd* p) {
  RemoveFdActor a(p);
  _loop->internal_runInThread(&a, true);
}

void AcceptFd::closeAllConnections() {
  std::set<TcpPolledFd*> all(_live);
  for (TcpPolledFd* p : all) p->afterEof();
}
