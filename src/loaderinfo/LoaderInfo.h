// LoaderInfo: the process-wide start-up information of every program.
//
// One object per process, LoaderInfo::getInstance(), filled in by main()
// before anything else runs: common_main_setup() reads VELMOR_HOME and
// VELMOR_DB and starts the log facility, populateFromCommandLine() reads the
// server options, validate() checks the result. Everything else reads it.
//
// Fields and their defaults:
//   home path             ""           VELMOR_HOME
//   database path         ""           VELMOR_DB
//   component name        "velmord"    -n
//   config directory      "etc"        -c (relative to home unless absolute)
//   install name          "myinstall"
//   management port       8089         -p
//   pid, start-up time    getpid(), time() at construction
//   host                  ""           -h
//   common component node empty        setCommonComponentNode
//   use debug log         false        --debug
//   daemon                true         --nodaemon makes it false
//   startup mode          ""           --mode=
//   wait on pid           false, -1
//
// Threads: main() fills the object in before other threads start; after that
// it is read-only, and any thread may read it. The object may also be built on
// its own (tests, tools) without touching the singleton.
#pragma once

#include <sys/types.h>

#include <ctime>

#include "util/Pathname.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class LoaderInfo {
 public:
  LoaderInfo();

  static LoaderInfo& getInstance();

  // Reads VELMOR_HOME and VELMOR_DB. Double and trailing separators are
  // removed from each; a value that changed is put back into the process
  // environment so that child processes see the cleaned value.
  void populateFromEnvironment();

  // The first call of every main(): populateFromEnvironment() on the
  // singleton; stops the process with status -1 when VELMOR_HOME is not set;
  // sets VELMOR_DB to home/var/lib/velmor/db when it is not set; then starts the log facility from home/etc/log-cmdline.cfg (announced on
  // standard error unless `quiet`).
  // A server names its own log configuration (the service: "log.cfg").
  static void common_main_setup(bool quiet, const char* logConfig = "log-cmdline.cfg");

  // Reads the server options (see the usage text in LoaderInfo.cc). --help,
  // --usage and -? print the usage and exit 0; a bad option exits 8;
  // --waitonpid= exits 1. Words that do not begin with "-" are passed over,
  // and a lone "--" ends the options.
  void populateFromCommandLine(int argc, char** argv);

  // The first fault of the settings as a message, or "" when they are usable.
  Str validate() const;

  // home/<config directory> (the config directory itself when absolute).
  Pathname getCommonConfigPath() const;
  // getCommonConfigPath()/<install name>.
  Pathname getInstallConfigPath() const;

  const Pathname& getHomePath() const { return _homePath; }
  void setHomePath(const Str& p) { _homePath = p; }
  const Pathname& getDbPath() const { return _dbPath; }
  void setDbPath(const Str& p) { _dbPath = p; }
  const Str& getComponentName() const { return _componentName; }
  void setComponentName(const Str& n) { _componentName = n; }
  const Str& getConfigDirectory() const { return _configDirectory; }
  void setConfigDirectory(const Str& d) { _configDirectory = d; }
  const Str& getInstallName() const { return _installName; }
  void setInstallName(const Str& n) { _installName = n; }
  int getManagementPort() const { return _managementPort; }
  void setManagementPort(int p) {
    _managementPort = p;
    _managementPortGiven = true;
  }
  // Whether -p (or setManagementPort) chose the port, over the configured one.
  bool managementPortGiven() const { return _managementPortGiven; }
  pid_t getPid() const { return _pid; }
  time_t getStartupTime() const { return _startupTime; }
  const Str& getHost() const { return _host; }
  void setHost(const Str& h) { _host = h; }
  const xml::node& getCommonComponentNode() const { return _commonComponentNode; }
  void setCommonComponentNode(const xml::node& n) { _commonComponentNode = n; }
  bool getUseDebugLog() const { return _useDebugLog; }
  bool isDaemon() const { return _daemon; }
  const Str& getStartupMode() const { return _startupMode; }
  bool getShouldWaitOnPid() const { return _shouldWaitOnPid; }
  pid_t getPidToWaitOn() const { return _pidToWaitOn; }

  // The usage text printed after "Usage: <program> ".
  static const char* usageText();

 private:
  Pathname _homePath;
  Pathname _dbPath;
  Str _componentName = "velmord";
  Str _configDirectory = "etc";
  Str _installName = "myinstall";
  int _managementPort = 8089;
  bool _managementPortGiven = false;
  pid_t _pid;
  time_t _startupTime;
  Str _host;
  xml::node _commonComponentNode;
  bool _useDebugLog = false;
  bool _daemon = true;
  Str _startupMode;
  bool _shouldWaitOnPid = false;
  pid_t _pidToWaitOn = -1;
};
