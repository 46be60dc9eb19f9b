#include "loaderinfo/LoaderInfo.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/Logger.h"

namespace {

const char kUsage[] =
    "[OPTION...]\n"
    "  --nodaemon      causes the system not to daemonize\n"
    "  -c STRING       override the config path\n"
    "  -h STRING       override the host name\n"
    "  -i STRING       the name of the configuration subdir\n"
    "  -n STRING       the component name to start with\n"
    "  -p INT          the management port for soap calls\n"
    "  --debug         start with debug log config\n"
    "  --mode=STRING   the startup mode\n"
    "\n"
    "Help options:\n"
    "  -?, --help      Show this help message\n"
    "  --usage         Display brief usage message\n";

// Reads one path variable, cleans it, and writes the cleaned form back to the
// environment when cleaning changed it.
Pathname readPathVariable(const char* name) {
  const char* v = getenv(name);
  if (v == nullptr) return Pathname();
  Pathname p(v);
  p.removeDoubleSeps();
  p.removeTrailingSeps();
  if (p != v) setenv(name, p.c_str(), 1);
  return p;
}

// The first fault of a path that must name an existing directory, or "".
Str checkDirectoryVariable(const char* name, const Pathname& p) {
  Str prefix = Str("The environment variable ") + name;
  if (p.empty()) return prefix + " must not be empty.";
  if (!p.isAbsolute()) return prefix + " must not be a relative path.";
  struct stat st;
  if (::stat(p.c_str(), &st) != 0) return prefix + " must point to an existing path.";
  if (!S_ISDIR(st.st_mode)) return prefix + " must point to a directory.";
  return Str();
}

[[noreturn]] void printUsageAndExit(const char* prog) {
  printf("Usage: %s %s", prog, kUsage);
  fflush(stdout);
  exit(0);
}

}  // namespace

LoaderInfo::LoaderInfo() : _pid(getpid()), _startupTime(time(nullptr)) {}

LoaderInfo& LoaderInfo::getInstance() {
  static LoaderInfo instance;
  return instance;
}

const char* LoaderInfo::usageText() { return kUsage; }

void LoaderInfo::populateFromEnvironment() {
  _homePath = readPathVariable("VELMOR_HOME");
  _dbPath = readPathVariable("VELMOR_DB");
}

void LoaderInfo::common_main_setup(bool quiet, const char* logConfig) {
  LoaderInfo& li = getInstance();
  li.populateFromEnvironment();
  if (li._homePath.empty()) {
    fprintf(stderr, "VELMOR_HOME must be set.  Stopping.\n");
    exit(-1);
  }
  // Index paths name $VELMOR_DB; a home laid out by mkhome keeps it under
  // var/lib, which is where it points unless the environment says otherwise.
  if (li._dbPath.empty()) {
    setenv("VELMOR_DB", (li._homePath / "var/lib/velmor/db").c_str(), 1);
    li.populateFromEnvironment();
  }
  // The shipped log configurations write under var/log/velmor; a fresh home
  // may not have it yet.
  Pathname logDir = li._homePath / "var" / "log" / "velmor";
  if (li._homePath.isDir() && !logDir.isDir()) logDir.mkdir_p();
  Pathname cfg = li._homePath / "etc" / logConfig;
  if (!quiet) fprintf(stderr, "Using logging configuration at %s.\n", cfg.c_str());
  Logger::initialize(cfg.c_str(), li._homePath.c_str(), true);
}

void LoaderInfo::populateFromCommandLine(int argc, char** argv) {
  const char* prog = argc > 0 && argv[0] ? argv[0] : "";
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (arg == nullptr || arg[0] != '-') continue;
    if (arg[1] == '-') {
      const char* opt = arg + 2;
      if (*opt == '\0') break;  // "--" ends the options
      if (strcmp(opt, "nodaemon") == 0) {
        _daemon = false;
      } else if (strcmp(opt, "debug") == 0) {
        _useDebugLog = true;
      } else if (strncmp(opt, "mode=", 5) == 0) {
        _startupMode = opt + 5;
      } else if (strcmp(opt, "help") == 0 || strcmp(opt, "usage") == 0) {
        printUsageAndExit(prog);
      } else if (strncmp(opt, "waitonpid=", 10) == 0) {
        fprintf(stderr, "--waitonpid option not implemented for UNIX\n");
        exit(1);
      } else {
        fprintf(stderr, "Bad Option %s\n", arg);
        exit(8);
      }
      continue;
    }
    char letter = arg[1];
    switch (letter) {
      case '?':
        printUsageAndExit(prog);
      case 'c':
      case 'h':
      case 'n':
      case 'p': {
        // The value is attached ("-n name") or the next word ("-nname").
        const char* value = nullptr;
        if (arg[2] != '\0') {
          value = arg + 2;
        } else if (i + 1 < argc && argv[i + 1] != nullptr) {
          value = argv[++i];
        } else {
          fprintf(stderr, "-%c option requires an argument\n", letter);
          exit(8);
        }
        if (letter == 'c') {
          _configDirectory = value;
        } else if (letter == 'h') {
          _host = value;
        } else if (letter == 'n') {
          _componentName = value;
        } else {
          // A port that is not a number leaves the default in place.
          long port;
          if (Str(value).tryToLong(port) && port >= 0 && port <= 65535) setManagementPort((int)port);
        }
        break;
      }
      default:
        // Every other letter, "-i" included, is refused.
        fprintf(stderr, "Bad Option -%c\n", letter);
        exit(8);
    }
  }
}

Pathname LoaderInfo::getCommonConfigPath() const {
  if (!_configDirectory.empty() && _configDirectory[0] == '/') return Pathname(_configDirectory);
  return _homePath / _configDirectory;
}

Pathname LoaderInfo::getInstallConfigPath() const { return getCommonConfigPath() / _installName; }

Str LoaderInfo::validate() const {
  Str fault = checkDirectoryVariable("VELMOR_HOME", _homePath);
  if (!fault.empty()) return fault;
  fault = checkDirectoryVariable("VELMOR_DB", _dbPath);
  if (!fault.empty()) return fault;

  if (_configDirectory.empty()) return "The common config path must be defined in the config file.";
  Pathname common = getCommonConfigPath();
  if (!common.isAbsolute()) return "The common config path must not be a relative path.";
  struct stat st;
  if (::stat(common.c_str(), &st) != 0) return "The common config path must point at an existing path.";
  if (!S_ISDIR(st.st_mode)) return "The common config path must point to a directory.";
  if (_componentName.empty()) return "The component name must not be empty.";
  if (_installName.empty()) return "The install name must not be empty.";
  return Str();
}
