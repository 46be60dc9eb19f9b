// velmor-index: adds log files to an index of $VELMOR_HOME, searches it,
// rolls its hot bucket and lists its buckets. See IndexToolArgs.h for the
// command line and IndexTool.h for what each command does.
//
// Start-up: SIGPIPE ignored, the command line read (bad usage exits 2
// before anything else), LoaderInfo and logging (messages go to the log
// file of log-cmdline.cfg), the main Thread object, the process runner
// (engine query children, gzip, the optimiser); then the command runs.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "tools/velmor-index/IndexTool.h"
#include "tools/velmor-index/IndexToolArgs.h"
#include "util/MainThread.h"
#include "util/Pathname.h"
#include "util/Thread.h"

namespace {
class MThread : public MainThread {};
}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  IndexToolArgs args;
  try {
    args = IndexToolArgs::parse(argc, argv);
  } catch (const IndexToolArgs::UsageError& e) {
    fprintf(stderr, "velmor-index: %s\n%s", e.what(), IndexToolArgs::usage());
    return 2;
  }
  if (args.command == IndexToolArgs::kHelp) {
    fputs(IndexToolArgs::usage(), stdout);
    return 0;
  }
  const char* home = getenv("VELMOR_HOME");
  if (!home || !*home) {
    fprintf(stderr, "velmor-index: VELMOR_HOME is not set\n");
    return 1;
  }
  // Index paths name $VELMOR_DB; a home laid out by mkhome keeps it under var/lib.
  const char* db = getenv("VELMOR_DB");
  if (!db || !*db) setenv("VELMOR_DB", (Pathname(home) / "var/lib/velmor/db").c_str(), 1);
  LoaderInfo::common_main_setup(true);
  MThread mainThread;
  int status;
  {
    EngineRunnerScope runner;  // before the first thread: background work forks through it
    IndexTool tool(args, stdout, stderr);
    status = tool.run();
  }
  if (fflush(stdout) != 0 && status == 0) status = 1;
  Thread::mainThreadDying();
  return status;
}
