// The process runner: parent (client) side and the runner child.
//
// DESIGN. Commands go parent -> runner on a stream socket, one letter each:
//   F  OFFSET SIZE MEANING
//      0      1    'F'
//      1      8    operation: 1 exec argv with environment, 2 call a
//                  routine of this image in the new process
//      9      8    operation 2: the routine, int (*)(const void*, size_t)
//      17     8    reserved, zero
//      25     8    data length D
//      33     8    descriptor count N
//      41     D    data: operation 1: u32 argc, argc NUL-ended strings,
//                  u32 envc, strings; operation 2: the routine's argument
//      41+D   4*N  action per target descriptor 0..N-1: 0 keep, 1 next
//                  passed descriptor, 2 same as 0, 3 same as 1
//   A routine pointer is valid in the runner because the runner is a fork
//   of the same image. The new process of operation 2 keeps only its target
//   descriptors 0..N-1 and ends with _exit(routine(data, D)).
//   P  1 byte: the next descriptor arrives on the passing socket
//   C  1 byte: close and forget the passed descriptors
//   K  1 + 8 (unique id) + 4 (signal): kill
// Replies runner -> parent:
//   O  1 + 8 unique id          E  1 + 4 errno (fork or exec failed)
//   X  1 + 8 id + 4 wait status Q  1 + 4 count of passed descriptors
//   A  1 + 4 length + text: last words, the runner is ending
// Integers are native-endian (both ends are the same image). The runner
// serves the stream on a private EventLoop: a SocketCommandConsumer takes
// complete messages (one that is not complete waits for more bytes) and a
// SelfPipe, written by the SIGCHLD handler, wakes the reaping. The parent
// serialises starts under one mutex, so the O or E after an F answers that
// F. Replies are read by whichever waiting thread holds the "reader" role
// (the others wait on a condition), so no event loop is needed for the
// client side.
#include "util/ProcessRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <map>
#include <memory>

#include "util/ConditionBaseClass.h"
#include "util/EventLoop.h"
#include "util/Exceptions.h"
#include "util/ExternalProcessGroup.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/SelfPipe.h"
#include "util/SocketCommandConsumer.h"
#include "util/Timeval.h"

extern char** environ;

static Logger gLogger("ProcessRunner");

struct ChildProcess {
  uint64_t id = 0;
  pid_t localPid = -1;  // started by startOrSpawn without a runner
  bool done = false;
  ExternalProcessStatus status = ExternalProcessStatus::running();
};

namespace {

template <typename T>
void put(std::string& out, T v) {
  out.append(reinterpret_cast<const char*>(&v), sizeof v);
}
template <typename T>
T get(const char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

bool sendAll(int fd, const void* buf, size_t len) {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// ------------------------------------------------------------ runner child

struct Runner {
  int cmd = -1, pass = -1, sigW = -1;
  std::string pidFile;
  std::vector<int> passed;
  uint64_t nextId = 1;
  bool parentGone = false;
  std::map<pid_t, uint64_t> pidToUniq;
  std::map<uint64_t, pid_t> uniqToPid;
};
Runner* gRunner = nullptr;

void onSigchld(int) {
  int saved = errno;
  char c = 0;
  if (gRunner != nullptr) (void)!::write(gRunner->sigW, &c, 1);
  errno = saved;
}

[[noreturn]] void lastWords(Runner& r, const char* text) {
  std::string m("A");
  put<uint32_t>(m, static_cast<uint32_t>(std::strlen(text)));
  m += text;
  sendAll(r.cmd, m.data(), m.size());
  _exit(8);
}

void rewritePidFile(Runner& r, bool keep) {
  if (r.pidFile.empty()) return;
  if (!keep) {
    ::unlink(r.pidFile.c_str());
    return;
  }
  std::string tmp = r.pidFile + ".tmp";
  FILE* f = std::fopen(tmp.c_str(), "w");
  if (f == nullptr) return;
  for (auto& e : r.pidToUniq) std::fprintf(f, "%llu\n", static_cast<unsigned long long>(e.first));
  std::fclose(f);
  ::rename(tmp.c_str(), r.pidFile.c_str());
}

void reply(Runner& r, const std::string& m) {
  if (r.parentGone) return;
  if (!sendAll(r.cmd, m.data(), m.size())) r.parentGone = true;  // noticed at the next read
}

void handleExit(Runner& r, pid_t pid, int status) {
  auto it = r.pidToUniq.find(pid);
  if (it == r.pidToUniq.end()) return;  // reaped directly after a failed exec
  uint64_t id = it->second;
  r.pidToUniq.erase(it);
  r.uniqToPid.erase(id);
  rewritePidFile(r, true);
  std::string m("X");
  put<uint64_t>(m, id);
  put<int32_t>(m, status);
  reply(r, m);
}

void reap(Runner& r) {
  for (;;) {
    int status;
    pid_t pid = ::waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return;
    handleExit(r, pid, status);
  }
}

typedef int (*RoutineFn)(const void*, size_t);

void doFork(Runner& r, uint64_t op, RoutineFn routine, const char* data, uint64_t len,
            const std::vector<uint32_t>& actions) {
  // Parse argv and the environment.
  std::vector<std::string> argv, env;
  const char* p = data;
  const char* end = data + len;
  for (int part = 0; op == 1 && part < 2; ++part) {
    uint32_t n = get<uint32_t>(p);
    p += 4;
    for (uint32_t i = 0; i < n && p < end; ++i) {
      size_t l = ::strnlen(p, static_cast<size_t>(end - p));
      (part == 0 ? argv : env).emplace_back(p, l);
      p += l + 1;
    }
  }
  std::vector<char*> av, ev;
  for (auto& s : argv) av.push_back(s.data());
  for (auto& s : env) ev.push_back(s.data());
  av.push_back(nullptr);
  ev.push_back(nullptr);

  std::vector<int> target(actions.size(), -1);
  size_t used = 0;
  for (size_t i = 0; i < actions.size(); ++i) {
    switch (actions[i]) {
      case 1: target[i] = used < r.passed.size() ? r.passed[used++] : -1; break;
      case 2: assert(i > 0); target[i] = target[0]; break;
      case 3: assert(i > 1); target[i] = target[1]; break;
      default: break;
    }
  }
  assert(used == r.passed.size() && "passed_fds == _passedFds.size()");

  int ep[2];
  if (::pipe2(ep, O_CLOEXEC) != 0) lastWords(r, "cannot create exec-status pipe");
  pid_t pid = ::fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    ::signal(SIGCHLD, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::close(ep[0]);
    for (size_t i = 0; i < target.size(); ++i)
      if (target[i] >= 0) ::dup2(target[i], static_cast<int>(i));  // dup2 clears close-on-exec
    if (op == 2) {
      // No exec follows, so close-on-exec protects nothing: keep only the
      // targets (this also closes the status pipe, which reads as success).
      gRunner = nullptr;
      if (::close_range(static_cast<unsigned>(target.size()), ~0u, 0) != 0) _exit(99);
      _exit(routine != nullptr ? routine(data, static_cast<size_t>(len)) : 99);
    }
    if (av[0] != nullptr) ::execvpe(av[0], av.data(), ev.data());
    int e = av[0] != nullptr ? errno : EINVAL;
    (void)!::write(ep[1], &e, sizeof e);
    _exit(127);
  }
  int forkErr = pid < 0 ? errno : 0;
  ::close(ep[1]);
  for (int fd : r.passed) ::close(fd);
  r.passed.clear();
  int execErr = 0;
  if (pid > 0) {
    ssize_t n;
    do {
      n = ::read(ep[0], &execErr, sizeof execErr);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof execErr)) execErr = 0;  // end of file: exec worked
    if (execErr != 0) {
      int st;
      while (::waitpid(pid, &st, 0) < 0 && errno == EINTR) {
      }
    }
  }
  ::close(ep[0]);
  if (forkErr != 0 || execErr != 0) {
    std::string m("E");
    put<int32_t>(m, forkErr != 0 ? forkErr : execErr);
    reply(r, m);
    return;
  }
  uint64_t id = r.nextId++;
  if (r.nextId == ~0ULL) r.nextId = 1;
  if (!r.pidToUniq.emplace(pid, id).second || !r.uniqToPid.emplace(id, pid).second) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "cannot insert PID/uniqid pair (%lu, %llu)", static_cast<unsigned long>(pid),
                  static_cast<unsigned long long>(id));
    lastWords(r, buf);
  }
  rewritePidFile(r, true);
  std::string m("O");
  put<uint64_t>(m, id);
  reply(r, m);
}

// Consumes one complete message from the front of b; 0 when more bytes
// are needed.
size_t consume(Runner& r, const std::string& b) {
  if (b.empty()) return 0;
  switch (b[0]) {
    case 'P': {
      char c;
      iovec iov{&c, 1};
      char ctl[CMSG_SPACE(sizeof(int))];
      msghdr mh{};
      mh.msg_iov = &iov;
      mh.msg_iovlen = 1;
      mh.msg_control = ctl;
      mh.msg_controllen = sizeof ctl;
      if (::recvmsg(r.pass, &mh, MSG_CMSG_CLOEXEC) <= 0) lastWords(r, "cannot receive passed descriptor");
      cmsghdr* cm = CMSG_FIRSTHDR(&mh);
      if (cm == nullptr || cm->cmsg_type != SCM_RIGHTS) lastWords(r, "no descriptor in passed message");
      int fd;
      std::memcpy(&fd, CMSG_DATA(cm), sizeof fd);
      r.passed.push_back(fd);
      std::string m("Q");
      put<int32_t>(m, static_cast<int32_t>(r.passed.size()));
      reply(r, m);
      return 1;
    }
    case 'C':
      for (int fd : r.passed) ::close(fd);
      r.passed.clear();
      return 1;
    case 'K': {
      if (b.size() < 13) return 0;
      auto it = r.uniqToPid.find(get<uint64_t>(b.data() + 1));
      if (it != r.uniqToPid.end()) ::kill(it->second, get<int32_t>(b.data() + 9));
      return 13;
    }
    case 'F': {
      if (b.size() < 41) return 0;
      uint64_t len = get<uint64_t>(b.data() + 25);
      uint64_t n = get<uint64_t>(b.data() + 33);
      if (b.size() < 41 + len + 4 * n) return 0;
      std::vector<uint32_t> actions(n);
      for (uint64_t i = 0; i < n; ++i) actions[i] = get<uint32_t>(b.data() + 41 + len + 4 * i);
      const uint64_t op = get<uint64_t>(b.data() + 1);
      RoutineFn routine = reinterpret_cast<RoutineFn>(get<uintptr_t>(b.data() + 9));
      if (op != 1 && op != 2) lastWords(r, "parent/child protocol error: unknown fork operation");
      doFork(r, op, routine, b.data() + 41, len, actions);
      return 41 + len + 4 * n;
    }
    default: {
      char buf[128];
      std::snprintf(buf, sizeof buf, "parent/child protocol error: read request from parent \"%c\" (ASCII 0x%02X)",
                    b[0], static_cast<unsigned char>(b[0]));
      lastWords(r, buf);
    }
  }
}

void shutdownChildren(Runner& r) {
  r.parentGone = true;
  for (auto& e : r.pidToUniq) ::kill(e.first, SIGTERM);
  for (int i = 0; i < 50 && !r.pidToUniq.empty(); ++i) {
    reap(r);
    if (!r.pidToUniq.empty()) ::usleep(100000);
  }
  for (auto& e : r.pidToUniq) ::kill(e.first, SIGKILL);
  while (!r.pidToUniq.empty()) {
    int st;
    pid_t pid = ::waitpid(-1, &st, 0);
    if (pid < 0) break;
    r.pidToUniq.erase(pid);
  }
  rewritePidFile(r, false);
}

// The runner's command stream: one message at a time, as complete
// messages arrive. End of file (the main process closed or died) ends the
// runner's loop.
class ProcessRunnerChildCommandHandler : public SocketCommandConsumer {
 public:
  ProcessRunnerChildCommandHandler(Runner& r, EventLoop& loop) : _r(r), _loop(loop) {}
  size_t consumeData(const Str& data) override { return consume(_r, data); }
  void after_eof() override { _loop.terminate(0); }

 private:
  Runner& _r;
  EventLoop& _loop;
};

// Woken through its pipe by the SIGCHLD handler; reaps every ended child.
class ProcessRunnerReaper : public SelfPipe {
 public:
  explicit ProcessRunnerReaper(Runner& r) : _r(r) {}
  void when_triggered() override { reap(_r); }

 private:
  Runner& _r;
};

[[noreturn]] void runnerMain(int cmd, int pass, const std::string& pidFile) {
  Runner r;
  gRunner = &r;
  r.pidFile = pidFile;
  ::setsid();
  sigset_t chld, old;
  sigemptyset(&chld);
  sigaddset(&chld, SIGCHLD);
  if (::sigprocmask(SIG_BLOCK, &chld, &old) != 0) _exit(8);  // "cannot run sigprocmask in child"
  r.cmd = ::fcntl(cmd, F_DUPFD_CLOEXEC, 3);
  r.pass = ::fcntl(pass, F_DUPFD_CLOEXEC, 3);
  if (r.cmd < 0 || r.pass < 0) _exit(8);  // "cannot dup socket fd" / "cannot dup fd-passing fd"
  int devnull = ::open("/dev/null", O_RDWR);
  if (devnull < 0) _exit(8);  // "cannot open /dev/null"
  for (int i = 0; i < 3; ++i)
    if (::dup2(devnull, i) < 0) _exit(8);  // "cannot dup2 /dev/null to [012]"
  // Everything but the two sockets: the ranges below, between and above.
  const unsigned lo = static_cast<unsigned>(std::min(r.cmd, r.pass));
  const unsigned hi = static_cast<unsigned>(std::max(r.cmd, r.pass));
  if ((lo > 3 && ::close_range(3, lo - 1, 0) != 0) || (hi > lo + 1 && ::close_range(lo + 1, hi - 1, 0) != 0) ||
      ::close_range(hi + 1, ~0u, 0) != 0)
    _exit(8);  // "cannot close descriptors"
  EventLoop loop;
  ProcessRunnerChildCommandHandler commands(r, loop);
  std::unique_ptr<ProcessRunnerReaper> reaper;
  try {
    reaper = std::make_unique<ProcessRunnerReaper>(r);
  } catch (const SelfPipeException&) {
    lastWords(r, "can't create selfpipe");
  }
  r.sigW = reaper->triggerFd();
  struct sigaction sa {};
  sa.sa_handler = onSigchld;
  sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGCHLD, &sa, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGINT, SIG_IGN);  // a terminal's ^C is for the main process
  ::sigprocmask(SIG_SETMASK, &old, nullptr);
  ::sigprocmask(SIG_UNBLOCK, &chld, nullptr);
  rewritePidFile(r, true);

  loop.add(&commands, PollableDescriptor(r.cmd));
  reaper->add_to(&loop);
  try {
    loop.run();
  } catch (const std::exception& e) {
    lastWords(r, e.what());
  }
  if (commands.isActive()) loop.removeActivePolledFd(&commands);
  reaper->remove_from_eventloop(&loop);
  shutdownChildren(r);
  _exit(0);
}

// ------------------------------------------------------------ parent side

struct Client {
  pid_t pid = -1;
  int cmd = -1, pass = -1;
  Mutex mutex;       // state below
  Mutex startMutex;  // one start at a time
  ConditionBaseClass cond;
  bool reading = false;
  bool dead = false;
  std::string in;
  std::map<uint64_t, std::shared_ptr<ChildProcess>> live;
  // The answer to the pending F.
  bool haveAnswer = false;
  std::shared_ptr<ChildProcess> answer;
  int answerErr = 0;
  std::vector<Str> (*envSource)() = nullptr;
};
Client gClient;

// Parses complete replies; under gClient.mutex.
void parseReplies() {
  std::string& b = gClient.in;
  for (;;) {
    if (b.empty()) return;
    size_t need;
    switch (b[0]) {
      case 'O': need = 9; break;
      case 'E': need = 5; break;
      case 'X': need = 13; break;
      case 'Q': need = 5; break;
      case 'A':
        need = b.size() >= 5 ? 5 + get<uint32_t>(b.data() + 1) : 5;
        break;
      default:
        gLogger.crit("parent/child protocol error: read reply from child \"%c\" (ASCII 0x%02X)", b[0],
                     static_cast<unsigned char>(b[0]));
        gClient.dead = true;
        b.clear();
        return;
    }
    if (b.size() < need) return;
    switch (b[0]) {
      case 'O': {
        // Registered at once: its X may follow in the same read.
        auto c = std::make_shared<ChildProcess>();
        c->id = get<uint64_t>(b.data() + 1);
        gClient.live[c->id] = c;
        gClient.haveAnswer = true;
        gClient.answer = c;
        gClient.answerErr = 0;
        break;
      }
      case 'E':
        gClient.haveAnswer = true;
        gClient.answer.reset();
        gClient.answerErr = get<int32_t>(b.data() + 1);
        break;
      case 'X': {
        auto it = gClient.live.find(get<uint64_t>(b.data() + 1));
        if (it != gClient.live.end()) {
          it->second->status = ExternalProcessStatus::ended(get<int32_t>(b.data() + 9));
          it->second->done = true;
          gClient.live.erase(it);
        }
        break;
      }
      case 'A':
        gLogger.fatal("child's last words: %s", b.substr(5, need - 5).c_str());
        gClient.dead = true;
        break;
      default:
        break;
    }
    b.erase(0, need);
  }
}

// Blocks until pred() holds (or the runner is gone), reading replies as
// the reader or waiting for the thread that is.
template <typename Pred>
void waitFor(Pred pred) {
  ScopedLock l(gClient.mutex);
  while (!pred() && !gClient.dead) {
    if (gClient.reading) {
      gClient.cond.wait(gClient.mutex);
      continue;
    }
    gClient.reading = true;
    char buf[4096];
    ssize_t n;
    {
      ScopedUnlock u(gClient.mutex);
      do {
        n = ::recv(gClient.cmd, buf, sizeof buf, 0);
      } while (n < 0 && errno == EINTR);
    }
    gClient.reading = false;
    if (n <= 0) {
      gClient.dead = true;
    } else {
      gClient.in.append(buf, static_cast<size_t>(n));
      parseReplies();
    }
    gClient.cond.internal_wake_all();
  }
}

void requireRunner() {
  if (gClient.pid == -1) throw ProcessRunnerException("ProcessRunner function called before calling ProcessRunnerInit()");
}

bool passFd(int fd) {
  char c = 'P';
  iovec iov{&c, 1};
  char ctl[CMSG_SPACE(sizeof(int))] = {};
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  mh.msg_control = ctl;
  mh.msg_controllen = sizeof ctl;
  cmsghdr* cm = CMSG_FIRSTHDR(&mh);
  cm->cmsg_level = SOL_SOCKET;
  cm->cmsg_type = SCM_RIGHTS;
  cm->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(cm), &fd, sizeof fd);
  ssize_t n;
  do {
    n = ::sendmsg(gClient.pass, &mh, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  return n == 1 && sendAll(gClient.cmd, "P", 1);
}

}  // namespace

int get_max_open_files() {
  rlimit rl{};
  if (::getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY || rl.rlim_cur > (1 << 20))
    return 1 << 16;
  return rl.rlim_cur < 256 ? 256 : static_cast<int>(rl.rlim_cur);
}

void ProcessRunnerInit(EventLoop* /*eventLoop*/, const Pathname& pidFile) {
  assert(gClient.pid == (pid_t)-1 && "pr_childPid == (pid_t) -1");
  int c[2], p[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, c) != 0 ||
      ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, p) != 0)
    throw ProcessRunnerException("cannot create process runner sockets: %s", strerror(errno));
  std::string pf(pidFile);
  pid_t pid = ::fork();
  if (pid < 0) throw ProcessRunnerException("cannot fork process runner child");
  if (pid == 0) {
    ::close(c[0]);
    ::close(p[0]);
    runnerMain(c[1], p[1], pf);
  }
  ::close(c[1]);
  ::close(p[1]);
  gClient.pid = pid;
  gClient.cmd = c[0];
  gClient.pass = p[0];
  gClient.dead = false;
}

void ProcessRunnerFini(EventLoop* /*eventLoop*/) {
  if (gClient.pid == -1) return;
  ::shutdown(gClient.cmd, SHUT_WR);
  waitFor([] { return false; });  // drains replies until the runner closes
  ::close(gClient.cmd);
  ::close(gClient.pass);
  int st;
  while (::waitpid(gClient.pid, &st, 0) < 0 && errno == EINTR) {
  }
  ScopedLock l(gClient.mutex);
  for (auto& e : gClient.live) {
    e.second->done = true;
    e.second->status = ExternalProcessStatus::ended(SIGKILL);
  }
  gClient.live.clear();
  gClient.pid = -1;
  gClient.cmd = gClient.pass = -1;
  gClient.in.clear();
}

int ProcessRunnerPid() { return gClient.pid; }

void ProcessRunnerSetEnvironmentSource(std::vector<Str> (*source)()) {
  ScopedLock l(gClient.mutex);
  gClient.envSource = source;
}

namespace {

// The environment of a new child: the configured source, or this process's
// environment; "PATH=/usr/bin:/bin" when it has no PATH.
std::vector<Str> childEnvironment() {
  std::vector<Str> env;
  std::vector<Str> (*source)();
  {
    ScopedLock l(gClient.mutex);
    source = gClient.envSource;
  }
  if (source != nullptr) {
    env = source();
  } else {
    for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  }
  bool havePath = false;
  for (auto& e : env) havePath = havePath || e.compare(0, 5, "PATH=") == 0;
  if (!havePath) env.emplace_back("PATH=/usr/bin:/bin");
  return env;
}

// The action of each target descriptor (invalid: keep the runner's
// /dev/null) and the descriptors to pass, in the order they are used.
void targetActions(const std::vector<FileDescriptor>& targets, std::vector<uint32_t>& actions,
                   std::vector<int>& toPass) {
  actions.assign(targets.size(), 0);
  for (size_t i = 0; i < targets.size(); ++i) {
    if (!targets[i].isValid()) continue;
    if (i > 0 && targets[0].isValid() && targets[i].get() == targets[0].get()) {
      actions[i] = 2;
    } else if (i > 1 && targets[1].isValid() && targets[i].get() == targets[1].get()) {
      actions[i] = 3;
    } else {
      actions[i] = 1;
      toPass.push_back(targets[i].get());
    }
  }
}

// Sends one fork command with its descriptors and waits for the answer.
// A failed fork or exec gives a token whose status is failedToStart.
ExternalProcessToken sendFork(uint64_t op, uintptr_t routine, const std::string& data,
                              const std::vector<FileDescriptor>& targets) {
  std::vector<uint32_t> actions;
  std::vector<int> toPass;
  targetActions(targets, actions, toPass);
  std::string msg("F");
  put<uint64_t>(msg, op);
  put<uint64_t>(msg, routine);
  put<uint64_t>(msg, 0);
  put<uint64_t>(msg, data.size());
  put<uint64_t>(msg, actions.size());
  msg += data;
  for (uint32_t a : actions) put<uint32_t>(msg, a);

  ScopedLock s(gClient.startMutex);
  {
    ScopedLock l(gClient.mutex);
    gClient.haveAnswer = false;
  }
  bool ok = sendAll(gClient.cmd, "C", 1);
  for (int fd : toPass) ok = ok && passFd(fd);
  ok = ok && sendAll(gClient.cmd, msg.data(), msg.size());
  if (!ok) throw ProcessRunnerException("cannot send command to process runner: %s", strerror(errno));
  waitFor([] { return gClient.haveAnswer; });
  ScopedLock l(gClient.mutex);
  if (!gClient.haveAnswer) throw ProcessRunnerException("process runner is gone");
  std::shared_ptr<ChildProcess> c = std::move(gClient.answer);
  if (!c) {
    c = std::make_shared<ChildProcess>();
    c->done = true;
    c->status = ExternalProcessStatus::failedToStart(gClient.answerErr);
  }
  return ExternalProcessToken(c);
}

// Tokens of the processes started by ProcessRunnerForkHelper, by token.
Mutex gHelperMutex;
std::map<long, ExternalProcessToken> gHelperChildren;

}  // namespace

ExternalProcessToken ExternalProcessGroup::start(const std::vector<Str>& argv, FileDescriptor in,
                                                 FileDescriptor out, FileDescriptor err) {
  requireRunner();
  std::vector<Str> env = childEnvironment();
  std::string data;
  put<uint32_t>(data, static_cast<uint32_t>(argv.size()));
  for (auto& a : argv) data.append(a.c_str(), a.size() + 1);
  put<uint32_t>(data, static_cast<uint32_t>(env.size()));
  for (auto& e : env) data.append(e.c_str(), e.size() + 1);
  ExternalProcessToken t = sendFork(1, 0, data, {in, out, err});
  _tokens.push_back(t);
  return t;
}

ExternalProcessToken ExternalProcessGroup::startRoutine(int (*routine)(const void*, size_t), const void* data,
                                                        size_t size, const std::vector<FileDescriptor>& targets) {
  requireRunner();
  std::string block(static_cast<const char*>(data), size);
  ExternalProcessToken t = sendFork(2, reinterpret_cast<uintptr_t>(routine), block, targets);
  _tokens.push_back(t);
  return t;
}

ExternalProcessToken ExternalProcessGroup::startOrSpawn(const std::vector<Str>& argv, FileDescriptor in,
                                                        FileDescriptor out, FileDescriptor err) {
  if (gClient.pid != -1) return start(argv, in, out, err);
  // No runner in this process (a tool without one, or a test): a direct
  // posix_spawn, which does not copy the address space.
  std::vector<Str> env = childEnvironment();
  std::vector<char*> av, ev;
  for (auto& a : argv) av.push_back(const_cast<char*>(a.c_str()));
  for (auto& e : env) ev.push_back(const_cast<char*>(e.c_str()));
  av.push_back(nullptr);
  ev.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  const FileDescriptor targets[3] = {in, out, err};
  // As under the runner, a descriptor not given is /dev/null (opened here
  // and dup'ed: addopen actions are lost by some spawn wrappers).
  const int devnull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int i = 0; i < 3; ++i) {
    const int fd = targets[i].isValid() ? targets[i].get() : devnull;
    if (fd >= 0) posix_spawn_file_actions_adddup2(&fa, fd, i);
  }
  pid_t pid = -1;
  int rc = argv.empty() ? EINVAL : ::posix_spawnp(&pid, av[0], &fa, nullptr, av.data(), ev.data());
  posix_spawn_file_actions_destroy(&fa);
  if (devnull >= 0) ::close(devnull);
  auto c = std::make_shared<ChildProcess>();
  if (rc != 0) {
    c->done = true;
    c->status = ExternalProcessStatus::failedToStart(rc);
  } else {
    c->localPid = pid;
  }
  ExternalProcessToken t(c);
  _tokens.push_back(t);
  return t;
}

long ProcessRunnerForkHelper(int child_fd, int (*child_main)(const void*, size_t), const void* block, size_t size) {
  if (gClient.pid == -1) {
    errno = ENOSYS;
    return -1;
  }
  try {
    ExternalProcessGroup g;
    // The engine's child speaks on 0 and 1 and reports on our stderr.
    ExternalProcessToken t =
        g.startRoutine(child_main, block, size, {FileDescriptor(child_fd), FileDescriptor(child_fd), FileDescriptor(2)});
    ExternalProcessStatus st = t.getStatus(false);
    if (st.isFailedToStart()) {
      errno = st.startErrno();
      return -1;
    }
    const long token = static_cast<long>(t.uniqueId());
    ScopedLock l(gHelperMutex);
    gHelperChildren[token] = t;
    return token;
  } catch (const ProcessRunnerException& e) {
    gLogger.error("cannot start engine child: %s", e.what());
    errno = EAGAIN;
    return -1;
  }
}

int ProcessRunnerWaitHelper(long token) {
  ExternalProcessToken t;
  {
    ScopedLock l(gHelperMutex);
    auto it = gHelperChildren.find(token);
    if (it == gHelperChildren.end()) return 0;  // already waited for, as ECHILD
    t = it->second;
    gHelperChildren.erase(it);
  }
  if (gClient.pid == -1) return 0;  // the runner took its children with it
  ExternalProcessStatus st = t.getStatus(true);
  return st.isRunning() ? -1 : st.waitStatus();
}

ExternalProcessToken ExternalProcessGroup::startViaShell(const Str& command, FileDescriptor in, FileDescriptor out,
                                                         FileDescriptor err) {
  return start({Str("/bin/sh"), Str("-c"), command}, in, out, err);
}

void ExternalProcessGroup::terminateAll(int warningSecs) {
  for (auto& t : _tokens) t.kill(SIGTERM);
  for (;;) {
    const Timeval until = [&] {
      Timeval u = Timeval::now();
      u.addSec(warningSecs > 0 ? warningSecs : 1);
      return u;
    }();
    size_t running = 0;
    for (auto& t : _tokens) {
      while (t.getStatus(false).isRunning() && Timeval::now() < until) ::usleep(10000);
      if (t.getStatus(false).isRunning()) ++running;
    }
    if (running == 0) break;
    gLogger.warn("still waiting for %zu external processes to end", running);
    for (auto& t : _tokens) t.kill(SIGKILL);
  }
  _tokens.clear();
}

uint64_t ExternalProcessToken::uniqueId() const { return _c ? _c->id : 0; }

ExternalProcessStatus ExternalProcessToken::getStatus(bool wait) const {
  if (!_c) return ExternalProcessStatus::failedToStart(EINVAL);
  if (_c->localPid > 0 || (_c->id == 0 && _c->done)) {
    ScopedLock l(gClient.mutex);
    if (!_c->done) {
      int st = 0;
      pid_t r;
      do {
        r = ::waitpid(_c->localPid, &st, wait ? 0 : WNOHANG);
      } while (r < 0 && errno == EINTR);
      if (r == _c->localPid) {
        _c->done = true;
        _c->status = ExternalProcessStatus::ended(st);
      } else if (r < 0) {
        _c->done = true;  // reaped by someone else: the status is lost
        _c->status = ExternalProcessStatus::ended(0xff00);
      }
    }
    return _c->status;
  }
  if (wait) {
    requireRunner();
    ChildProcess* c = _c.get();
    waitFor([c] { return c->done; });
  } else if (gClient.pid != -1) {
    // Take in whatever replies are waiting, without blocking.
    ScopedLock l(gClient.mutex);
    if (!gClient.reading) {
      char buf[4096];
      ssize_t n;
      while ((n = ::recv(gClient.cmd, buf, sizeof buf, MSG_DONTWAIT)) > 0) gClient.in.append(buf, static_cast<size_t>(n));
      parseReplies();
    }
  }
  ScopedLock l(gClient.mutex);
  return _c->status;
}

void ExternalProcessToken::kill(int sig) const {
  if (_c && _c->localPid > 0) {
    ScopedLock l(gClient.mutex);
    if (!_c->done) ::kill(_c->localPid, sig);
    return;
  }
  requireRunner();
  if (!_c || _c->id == 0) return;
  {
    ScopedLock l(gClient.mutex);
    if (_c->done) return;
  }
  std::string m("K");
  put<uint64_t>(m, _c->id);
  put<int32_t>(m, sig);
  ScopedLock s(gClient.startMutex);
  sendAll(gClient.cmd, m.data(), m.size());
}
