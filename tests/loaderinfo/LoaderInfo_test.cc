#include "loaderinfo/LoaderInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/velmor-loaderinfo-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = tmpl;
  }
  ~TempDir() {
    std::string cmd = "rm -rf '" + _path + "'";
    if (system(cmd.c_str()) != 0) perror("rm");
  }
  std::string operator/(const std::string& rel) const { return _path + "/" + rel; }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Runs populateFromCommandLine over `args` (argv[0] is "velmord").
void parse(LoaderInfo& li, std::vector<std::string> args) {
  args.insert(args.begin(), "velmord");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  li.populateFromCommandLine((int)args.size(), argv.data());
}

std::string fields(const LoaderInfo& li) {
  std::ostringstream o;
  o << "n=" << li.getComponentName() << " c=" << li.getConfigDirectory() << " h=" << li.getHost()
    << " p=" << li.getManagementPort() << " daemon=" << li.isDaemon() << " debug=" << li.getUseDebugLog()
    << " mode=" << li.getStartupMode();
  return o.str();
}

}  // namespace

TEST(LoaderInfoCommandLine, Accepted) {
  struct Row {
    std::vector<std::string> args;
    const char* expected;
  } rows[] = {
      {{}, "n=velmord c=etc h= p=8089 daemon=1 debug=0 mode="},
      {{"--nodaemon", "--debug", "--mode=maintenance"}, "n=velmord c=etc h= p=8089 daemon=0 debug=1 mode=maintenance"},
      {{"-n", "indexer", "-c", "conf", "-h", "box", "-p", "9000"}, "n=indexer c=conf h=box p=9000 daemon=1 debug=0 mode="},
      {{"-nindexer", "-cconf", "-hbox", "-p9000"}, "n=indexer c=conf h=box p=9000 daemon=1 debug=0 mode="},
      {{"stray", "-n", "x", "other"}, "n=x c=etc h= p=8089 daemon=1 debug=0 mode="},
      // A lone "--" ends the options: what follows is not read.
      {{"--debug", "--", "--bogus", "-i"}, "n=velmord c=etc h= p=8089 daemon=1 debug=1 mode="},
      // The value of a short option is taken whatever it looks like.
      {{"-n", "--debug"}, "n=--debug c=etc h= p=8089 daemon=1 debug=0 mode="},
      {{"-p", "notaport"}, "n=velmord c=etc h= p=8089 daemon=1 debug=0 mode="},
      {{"--mode="}, "n=velmord c=etc h= p=8089 daemon=1 debug=0 mode="},
  };
  for (const Row& row : rows) {
    LoaderInfo li;
    parse(li, row.args);
    EXPECT_EQ(fields(li), row.expected);
  }
}

TEST(LoaderInfoCommandLineDeathTest, Exits) {
  struct Row {
    std::vector<std::string> args;
    int status;
    const char* stderrText;  // a regular expression
  } rows[] = {
      {{"-i", "x"}, 8, "Bad Option -i\n"},
      {{"-z"}, 8, "Bad Option -z\n"},
      {{"--bogus"}, 8, "Bad Option --bogus\n"},
      {{"--nodaemonx"}, 8, "Bad Option --nodaemonx\n"},
      {{"-n"}, 8, "-n option requires an argument\n"},
      {{"--debug", "-p"}, 8, "-p option requires an argument\n"},
      {{"--waitonpid=12"}, 1, "--waitonpid option not implemented for UNIX\n"},
  };
  for (const Row& row : rows) {
    LoaderInfo li;
    EXPECT_EXIT(parse(li, row.args), testing::ExitedWithCode(row.status), row.stderrText) << row.args[0];
  }
}

TEST(LoaderInfoCommandLineDeathTest, HelpIsPrintedWordForWord) {
  TempDir dir;
  const std::string expected =
      "Usage: velmord [OPTION...]\n"
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
  for (const char* opt : {"--help", "--usage", "-?"}) {
    std::string out = dir / "help.txt";
    EXPECT_EXIT(
        {
          if (!freopen(out.c_str(), "w", stdout)) abort();
          LoaderInfo li;
          parse(li, {"--debug", opt, "--bogus"});
        },
        testing::ExitedWithCode(0), "")
        << opt;
    EXPECT_EQ(readFile(out), expected) << opt;
  }
}

TEST(LoaderInfoEnvironment, CleansPathsAndExportsThem) {
  TempDir dir;
  std::string messy = dir.path() + "//home///";
  setenv("VELMOR_HOME", messy.c_str(), 1);
  setenv("VELMOR_DB", "/already/clean", 1);
  LoaderInfo li;
  li.populateFromEnvironment();
  EXPECT_EQ(li.getHomePath(), dir.path() + "/home");
  EXPECT_STREQ(getenv("VELMOR_HOME"), (dir.path() + "/home").c_str());
  EXPECT_EQ(li.getDbPath(), "/already/clean");
  EXPECT_EQ(li.getCommonConfigPath(), dir.path() + "/home/etc");
  EXPECT_EQ(li.getInstallConfigPath(), dir.path() + "/home/etc/myinstall");

  setenv("VELMOR_HOME", "/", 1);
  li.populateFromEnvironment();
  EXPECT_EQ(li.getHomePath(), "/");
  unsetenv("VELMOR_DB");
  li.populateFromEnvironment();
  EXPECT_EQ(li.getDbPath(), "");
}

TEST(LoaderInfoValidate, FirstFaultInOrder) {
  TempDir dir;
  mkdir((dir / "home").c_str(), 0755);
  mkdir((dir / "home/etc").c_str(), 0755);
  mkdir((dir / "db").c_str(), 0755);
  mkdir((dir / "bare").c_str(), 0755);
  std::ofstream(dir / "file") << "x";
  const std::string home = dir / "home", db = dir / "db", file = dir / "file";

  struct Row {
    std::string home, db, configDir, component, install;
    const char* fault;
  } rows[] = {
      {home, db, "etc", "velmord", "myinstall", ""},
      {"", db, "etc", "velmord", "myinstall", "The environment variable VELMOR_HOME must not be empty."},
      {"rel/home", "", "etc", "velmord", "myinstall", "The environment variable VELMOR_HOME must not be a relative path."},
      {dir / "nope", db, "etc", "velmord", "myinstall", "The environment variable VELMOR_HOME must point to an existing path."},
      {file, db, "etc", "velmord", "myinstall", "The environment variable VELMOR_HOME must point to a directory."},
      {home, "", "etc", "velmord", "myinstall", "The environment variable VELMOR_DB must not be empty."},
      {home, "db", "etc", "velmord", "myinstall", "The environment variable VELMOR_DB must not be a relative path."},
      {home, dir / "nodb", "etc", "velmord", "myinstall", "The environment variable VELMOR_DB must point to an existing path."},
      {home, file, "etc", "velmord", "myinstall", "The environment variable VELMOR_DB must point to a directory."},
      {home, db, "", "velmord", "myinstall", "The common config path must be defined in the config file."},
      {home, db, "missing", "velmord", "myinstall", "The common config path must point at an existing path."},
      {home, db, file, "velmord", "myinstall", "The common config path must point to a directory."},
      {dir / "bare", db, "etc", "velmord", "myinstall", "The common config path must point at an existing path."},
      {home, db, dir / "bare", "velmord", "myinstall", ""},
      {home, db, "etc", "", "myinstall", "The component name must not be empty."},
      {home, db, "etc", "velmord", "", "The install name must not be empty."},
  };
  for (const Row& row : rows) {
    LoaderInfo li;
    li.setHomePath(row.home);
    li.setDbPath(row.db);
    li.setConfigDirectory(row.configDir);
    li.setComponentName(row.component);
    li.setInstallName(row.install);
    EXPECT_EQ(li.validate(), row.fault) << row.home << " " << row.db << " " << row.configDir;
  }
}

TEST(LoaderInfoDeathTest, CommonMainSetup) {
  unsetenv("VELMOR_HOME");
  EXPECT_EXIT(LoaderInfo::common_main_setup(false), testing::ExitedWithCode(255),
              "^VELMOR_HOME must be set.  Stopping.\n$");

  TempDir dir;
  mkdir((dir / "etc").c_str(), 0755);
  std::ofstream(dir / "etc/log-cmdline.cfg")
      << "rootCategory=WARN\nappender.rootAppender.fileName=${VELMOR_HOME}/etc/test.log\n";
  setenv("VELMOR_HOME", dir.path().c_str(), 1);
  std::string expected = "Using logging configuration at " + dir.path() + "/etc/log-cmdline.cfg.\n";
  EXPECT_EXIT(
      {
        LoaderInfo::common_main_setup(false);
        exit(LoaderInfo::getInstance().getHomePath() == dir.path() ? 3 : 4);
      },
      testing::ExitedWithCode(3), expected);
  EXPECT_EXIT(
      {
        LoaderInfo::common_main_setup(true);
        fprintf(stderr, "quiet");
        exit(3);
      },
      testing::ExitedWithCode(3), "^quiet$");
}
