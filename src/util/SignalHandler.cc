// DESIGN. The process signal handler writes one byte (the signal number) to
// a non-blocking pipe; a PolledFd on the routing loop reads the bytes and
// dispatches each through SignalHandler::handleSignal on the loop's thread.
#include "util/SignalHandler.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "util/EventLoop.h"
#include "util/MSignalHandler.h"
#include "util/PolledFd.h"

namespace {

int gSignalWriteFd = -1;

void onSignal(int sig) {
  int saved = errno;
  unsigned char c = static_cast<unsigned char>(sig);
  if (gSignalWriteFd >= 0) (void)!::write(gSignalWriteFd, &c, 1);
  errno = saved;
}

class SignalPipe : public PolledFd {
 public:
  SignalPipe() {
    int p[2];
    if (::pipe2(p, O_NONBLOCK | O_CLOEXEC) == 0) {
      r = p[0];
      w = p[1];
    }
  }
  ~SignalPipe() override {
    ::close(r);
    ::close(w);
  }
  bool when_events(PollableDescriptor fd) override {
    unsigned char buf[64];
    for (;;) {
      ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n > 0) {
        for (ssize_t i = 0; i < n; ++i) SignalHandler::instance().handleSignal(buf[i]);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
  }
  int r = -1, w = -1;
  std::vector<int> signals;
};

SignalPipe* gPipe = nullptr;

}  // namespace

SignalHandler& SignalHandler::instance() {
  static SignalHandler* h = new SignalHandler();
  return *h;
}

void SignalHandler::registerSignalHandler(MSignalHandler const* h, int sig) {
  ScopedLock l(_mutex);
  _handlers[sig].push_back(h);
}

void SignalHandler::unregisterSignalHandler(MSignalHandler const* h, int sig) {
  ScopedLock l(_mutex);
  auto it = _handlers.find(sig);
  if (it == _handlers.end()) return;
  std::erase(it->second, h);
}

void SignalHandler::handleSignal(int sig) {
  std::vector<MSignalHandler const*> hs;
  {
    ScopedLock l(_mutex);
    auto it = _handlers.find(sig);
    if (it != _handlers.end()) hs = it->second;
  }
  for (auto* h : hs) h->handleSignal(sig);
}

void SignalHandler::sendShutdownSignal() { ::kill(::getpid(), SIGINT); }

void SignalHandler::routeToEventLoop(EventLoop* loop, int sig) {
  if (gPipe == nullptr) {
    gPipe = new SignalPipe();
    gSignalWriteFd = gPipe->w;
    loop->add(gPipe, PollableDescriptor(gPipe->r));
  }
  gPipe->signals.push_back(sig);
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  ::sigaction(sig, &sa, nullptr);
}

void SignalHandler::unrouteAll() {
  if (gPipe == nullptr) return;
  for (int sig : gPipe->signals) ::signal(sig, SIG_DFL);
  gSignalWriteFd = -1;
  if (gPipe->isActive()) gPipe->eventLoop()->removeActivePolledFd(gPipe);
  delete gPipe;
  gPipe = nullptr;
}
