// LocalRuntime: what a command needs to search the indexes of VELMOR_HOME
// in this process: logging set up (quietly, from log-cmdline.cfg), the main
// Thread object, an event loop thread serving the process runner (external
// commands, forked engine handles), the search commands registered and an
// IndexProcessor opened read-only over every configured index. The command
// never writes to an index, so it can run beside the service.
//
// DESIGN: two threads live as long as the object: the caller's, which does
// all search work, and the EventLoopThread. The constructor builds in the
// order velmor-search does; the destructor undoes it in reverse, first
// cancelling and joining background searches (unified search threads) so
// they end before the indexes close. A constructor that throws (a
// configuration that cannot be opened) leaves nothing running.
//
// checkHome() must come first: it refuses an unset VELMOR_HOME and points
// VELMOR_DB at <home>/var/lib/velmor/db when it is not set.
//
// One object per process, made and destroyed on the main thread inside a
// ProcessScope.
#pragma once

#include <memory>

#include "util/Str.h"

class IndexProcessor;
class ToolUser;
class MainThread;

// The process-wide part, for every command that works in this process:
// round-to-nearest, logging from log-cmdline.cfg (quiet) and the main
// Thread object, undone at the end of the scope. Made once, on the main
// thread, after checkHome().
class ProcessScope {
 public:
  ProcessScope();
  ~ProcessScope();
  ProcessScope(const ProcessScope&) = delete;
  ProcessScope& operator=(const ProcessScope&) = delete;

 private:
  std::unique_ptr<MainThread> _main;
};

class LocalRuntime {
 public:
  // False with `err` when VELMOR_HOME is not set.
  static bool checkHome(Str& err);

  LocalRuntime();
  ~LocalRuntime();
  LocalRuntime(const LocalRuntime&) = delete;
  LocalRuntime& operator=(const LocalRuntime&) = delete;

  IndexProcessor& indexes() { return *_index; }
  // Closes the indexes and opens them again, so that what other processes
  // wrote since (new slices, new buckets) is seen: a read-only opening
  // keeps the view it had. Throws as the constructor does.
  void reopenIndexes();
  // Whether a word names a search command (after the indexes registered
  // theirs).
  static bool isCommand(const Str& word);
  // Registers the search commands; withIndexCommands registers those of
  // the index side at once (for --server, where no index opens).
  static void registerCommands(bool withIndexCommands);

 private:
  void openIndexes();

  struct Loop;
  std::unique_ptr<ToolUser> _user;  // who the searches run for (VELMOR_USER, else admin)
  std::unique_ptr<Loop> _loop;
  std::unique_ptr<IndexProcessor> _index;
};
