// velmord: the service. It runs the ingestion pipelines of the composed
// description (etc/myinstall/velmord.xml and the modules under etc/modules):
// followed files become events in their indexes.
//
//   velmord [--nodaemon] [--debug] [--mode=STRING] [-c DIR] [-h HOST] [-n NAME] [-p PORT]
//
// Exit status: 0 after an orderly shutdown (SIGINT or SIGTERM), 1 when it
// cannot start (a bad home, a description it cannot read, no pipeline, one
// already running), 8 on a bad option. Without --nodaemon it detaches:
// the command returns once the pipelines run, with the status of the start.
// Files: var/run/velmor/velmord.pid (this process's pid, removed at exit),
// var/log/velmor/velmord.log (etc/log.cfg), var/run/velmor/composite.xml.
//
// DESIGN. Start-up order: options, logging, the checks of the home, the
// pid-file check, the detach (a fork before any thread), the main thread
// object and its loop, the process runner (forked before any other thread
// starts), then Velmord::run on the main thread. Shutdown unwinds in reverse.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "loaderinfo/LoaderInfo.h"
#include "searchthing/ipcver.h"
#include "tools/velmord/Velmord.h"
#include "util/EventLoopMainThread.h"
#include "util/FileStar.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ProcessRunner.h"
#include "util/Thread.h"
#include "util/xml/XmlInit.h"

namespace {

// The pid a pid file names, when that process runs a velmord; else 0.
pid_t runningVelmord(const Pathname& pidFile) {
  FILE* f = fopen(pidFile.c_str(), "r");
  if (!f) return 0;
  long pid = 0;
  bool ok = fscanf(f, "%ld", &pid) == 1 && pid > 0;
  fclose(f);
  if (!ok || pid == long(getpid()) || (kill(pid_t(pid), 0) != 0 && errno == ESRCH)) return 0;
  char comm[64] = "";
  FILE* c = fopen(Str::fromFormat("/proc/%ld/comm", pid).c_str(), "r");
  if (c) {
    if (!fgets(comm, sizeof comm, c)) comm[0] = '\0';
    fclose(c);
  }
  if (strncmp(comm, "velmord", 7) != 0) return 0;
  // A process killed a moment ago may linger as a zombie until reaped.
  char stat[512] = "";
  FILE* st = fopen(Str::fromFormat("/proc/%ld/stat", pid).c_str(), "r");
  if (st) {
    if (!fgets(stat, sizeof stat, st)) stat[0] = '\0';
    fclose(st);
  }
  const char* close = strrchr(stat, ')');
  if (close && (close[2] == 'Z' || close[2] == 'X')) return 0;
  return pid_t(pid);
}

bool writePidFile(const Pathname& pidFile) {
  Pathname tmp(pidFile + ".tmp");
  FILE* f = fopen(tmp.c_str(), "w");
  if (!f) return false;
  bool ok = fprintf(f, "%ld\n", long(getpid())) > 0;
  ok = fclose(f) == 0 && ok;
  return ok && rename(tmp.c_str(), pidFile.c_str()) == 0;
}

// Detaches: the parent waits for the child's word on a pipe (an empty line
// once the pipelines run, else the reason it could not start) and exits
// with the matching status. Returns the pipe's write end in the child.
int detach() {
  int fds[2];
  if (pipe(fds) != 0) {
    perror("velmord: pipe");
    exit(1);
  }
  pid_t child = fork();
  if (child < 0) {
    perror("velmord: fork");
    exit(1);
  }
  if (child > 0) {
    close(fds[1]);
    char buf[4096];
    Str said;
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) said.append(buf, size_t(n));
    if (said.empty()) {
      fprintf(stderr, "velmord: it stopped before it started; see var/log/velmor/velmord.log\n");
      exit(1);
    }
    if (said != "\n") {
      fprintf(stderr, "velmord: %s", said.c_str());
      exit(1);
    }
    exit(0);
  }
  close(fds[0]);
  setsid();
  int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    if (null > 2) close(null);
  }
  return fds[1];
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  // SIGINT and SIGTERM wait until the service can shut down in order: they
  // stay blocked in every thread, and the main thread takes them once its
  // loop handles them (Velmord::run). One that comes during start-up is
  // then served at once.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  xml::init xmlGuard;
  LoaderInfo& li = LoaderInfo::getInstance();
  li.populateFromCommandLine(argc, argv);
  LoaderInfo::common_main_setup(false, "log.cfg");
  Str fault = li.validate();
  if (!fault.empty()) {
    fprintf(stderr, "%s\n", fault.c_str());
    return 1;
  }
  const Pathname home = li.getHomePath();
  // --debug: every category at DEBUG from here on.
  if (li.getUseDebugLog()) Logger::setChannelLevel("", Logger::DEBUG);
  for (const char* d : {"var/run/velmor", "var/lib/velmor", "var/log/velmor"}) (home / d).mkdir_p();
  const Pathname pidFile = home / "var/run/velmor/velmord.pid";
  if (pid_t other = runningVelmord(pidFile)) {
    fprintf(stderr, "velmord is already running (pid %ld)\n", long(other));
    return 1;
  }
  int tellParent = li.isDaemon() ? detach() : -1;
  auto started = [&tellParent](const Str& failure) {
    if (tellParent < 0) {
      if (!failure.empty()) fprintf(stderr, "velmord: %s\n", failure.c_str());
      return;
    }
    Str word = failure + "\n";
    if (write(tellParent, word.data(), word.size()) < 0) {
      // The parent went away; nothing more to tell.
    }
    close(tellParent);
    tellParent = -1;
  };
  if (!writePidFile(pidFile)) {
    started(Str::fromFormat("unable to write %s: %s", pidFile.c_str(), strerror(errno)));
    return 1;
  }
  int status = 0;
  {
    EventLoopMainThread mainThread;
    ProcessRunnerInit(&mainThread.eventLoop(), Pathname());
    st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
    {
      Velmord server(mainThread.eventLoop(), li);
      status = server.run(started);
    }
    st_set_forkwait_helpers(nullptr, nullptr);
    ProcessRunnerFini(&mainThread.eventLoop());
    mainThread.reapFinished();
    Thread::mainThreadDying();
  }
  unlink(pidFile.c_str());
  return status;
}
