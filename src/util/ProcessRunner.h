// The process runner: a small child forked early by the main process that
// performs every later fork on its behalf, since a large multi-threaded
// process cannot fork safely or cheaply.
//
// ProcessRunnerInit() forks it before any thread starts. The runner starts
// its own session, points 0, 1 and 2 at /dev/null, closes every other
// descriptor and serves two socket pairs: the
// command stream and the descriptor-passing socket (SCM_RIGHTS). It keeps a
// pid file (when one is named) listing, one "%llu\n" line each, the
// processes it has running, rewritten through "<pidFile>.tmp" and rename,
// so that they can be found after a crash.
//
// When the main process dies (or ProcessRunnerFini() closes the command
// socket) the runner sees end of file; it then sends SIGTERM to every child
// still running, waits up to 5 seconds, sends SIGKILL to the rest, reaps
// them, removes the pid file and exits. Children are thus never left behind
// silently; only a SIGKILL of the runner itself leaves them, and the pid
// file then still names them.
//
// Threads: Init and Fini on the main thread, Init before any other thread.
#pragma once

#include <vector>

#include "util/Pathname.h"
#include "util/Str.h"

class EventLoop;

// The soft limit of open descriptors (RLIMIT_NOFILE), at least 256.
int get_max_open_files();

// REQUIRES: called once ("pr_childPid == (pid_t) -1"), before threads start.
// Throws ProcessRunnerException "cannot fork process runner child".
void ProcessRunnerInit(EventLoop* eventLoop, const Pathname& pidFile);
// Ends the runner and waits for it. Safe to call without Init.
void ProcessRunnerFini(EventLoop* eventLoop);
// The runner's pid, or -1.
int ProcessRunnerPid();

// Where children get their environment ("NAME=value" strings), e.g. the
// loader's environment cache; null restores the default (this process's
// environment at each start).
void ProcessRunnerSetEnvironmentSource(std::vector<Str> (*source)());

// Fork and wait helpers with the shape of the index engine's pluggable
// helpers, so that its forked query handles start through the runner:
// ProcessRunnerForkHelper runs child_main(block, size) in a new child of the
// runner whose descriptors 0 and 1 are child_fd and 2 is this process's
// standard error, and returns a token (> 0), or -1 with errno set (ENOSYS
// before ProcessRunnerInit). ProcessRunnerWaitHelper waits for the process
// of a token and returns its wait status; 0 for an unknown token (as
// waitpid's ECHILD), -1 when the runner went away first.
long ProcessRunnerForkHelper(int child_fd, int (*child_main)(const void*, size_t), const void* block, size_t size);
int ProcessRunnerWaitHelper(long token);
