#include "tools/velmor/LocalRuntime.h"

#include <fenv.h>
#include <stdlib.h>

#include "framework/auth/ToolUser.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/PersistentHashManager.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"
#include "search/processors/SavedVelmorResolver.h"
#include "search/SearchFactory.h"
#include "search/dispatch/DispatchCommands.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"
#include "searchthing/ipcver.h"
#include "util/EventLoopThread.h"
#include "util/MainThread.h"
#include "util/Pathname.h"
#include "util/ProcessRunner.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlNode.h"

namespace {
class MThread : public MainThread {};
}  // namespace

ProcessScope::ProcessScope() {
  fesetround(FE_TONEAREST);
  LoaderInfo::common_main_setup(true);
  _main = std::make_unique<MThread>();
}

ProcessScope::~ProcessScope() {
  Thread::mainThreadDying();
  _main.reset();
}

struct LocalRuntime::Loop {
  xml::init xmlGuard;
  EventLoopThread loop;
  Loop() {
    ProcessRunnerInit(&loop, Pathname());
    // Forked engine handles start their children through the runner too.
    st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
    loop.start();
  }
  ~Loop() {
    loop.stop();
    st_set_forkwait_helpers(nullptr, nullptr);
    ProcessRunnerFini(&loop);
  }
};

bool LocalRuntime::checkHome(Str& err) {
  const char* home = getenv("VELMOR_HOME");
  if (!home || !*home) {
    err = "VELMOR_HOME is not set";
    return false;
  }
  const char* db = getenv("VELMOR_DB");
  if (!db || !*db) setenv("VELMOR_DB", (Pathname(home) / "var/lib/velmor/db").c_str(), 1);
  return true;
}

void LocalRuntime::registerCommands(bool withIndexCommands) {
  SearchCommands::registerAll();
  DispatchCommands::registerAll();
  ToolCommands::registerAll();
  if (withIndexCommands)
    IndexSearchCommands::registerAll();
  else
    IndexSearchCommands::install();
  SavedVelmorResolver::installForProcess();  // event types, tags, saved searches
}

bool LocalRuntime::isCommand(const Str& word) {
  // `metadata` is registered by the index side; a --server run has none.
  return word == "metadata" || SearchFactory::isProcessorRegistered(word, true);
}

LocalRuntime::LocalRuntime() {
  _user = std::make_unique<ToolUser>();
  _loop = std::make_unique<Loop>();
  try {
    registerCommands(false);
    openIndexes();
    xml::node config;
    PersistentHashManager::instance()->init(config);
  } catch (...) {
    UnifiedSearchDispatchThreadManager::instance()->clear();
    _index.reset();
    _loop.reset();
    throw;
  }
}

LocalRuntime::~LocalRuntime() {
  UnifiedSearchDispatchThreadManager::instance()->clear();
  _index.reset();
  _loop.reset();
}

void LocalRuntime::openIndexes() {
  _index = std::make_unique<IndexProcessor>();
  _index->init(/*readOnly=*/true, /*startService=*/false);
}

void LocalRuntime::reopenIndexes() {
  UnifiedSearchDispatchThreadManager::instance()->clear();
  _index.reset();
  openIndexes();
}
