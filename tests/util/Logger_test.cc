// Logger end to end: before and after initialize(), which may run once per
// process, so the tests below run in file order and the later ones skip
// when run alone out of order.
#include "util/Logger.h"
#include "StderrCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

// Built before initialize(), like every static logger.
Logger gEarly("early");


class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-logger-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    _dir = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + _dir + "'").c_str()); }
  std::string _dir;
};

TEST_F(LoggerTest, BeforeInitializeEverythingGoesToStderr) {
  if (Logger::isInitialized()) GTEST_SKIP() << "initialize() already ran in this process";
  StderrCapture cap(_dir + "/err");
  errno = ENOENT;
  gEarly.debug("d %d", 1);
  EXPECT_EQ(errno, ENOENT);
  gEarly.warn("cannot open %s: %m", "x");
  EXPECT_EQ(errno, ENOENT);
  gEarly.error(std::string("100% literal %s"));
  gEarly.crit(std::runtime_error("boom"));
  gEarly.fatal("%%m stays, %m expands, %d%%", 5);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(cap.text(),
            "DEBUG - d 1\n"
            "WARN - cannot open x: No such file or directory\n"
            "ERROR - 100% literal %s\n"
            "CRIT - boom\n"
            "FATAL - %m stays, No such file or directory expands, 5%\n");
}

TEST_F(LoggerTest, UnknownErrnoValueHasText) {
  if (Logger::isInitialized()) GTEST_SKIP() << "initialize() already ran in this process";
  StderrCapture cap(_dir + "/err");
  errno = 12345;  // unknown: "Unknown error 12345"
  gEarly.info("[%m] %s", "arg");
  EXPECT_EQ(cap.text(), "INFO - [Unknown error 12345] arg\n");
}

TEST_F(LoggerTest, LongMessagesAreWhole) {
  if (Logger::isInitialized()) GTEST_SKIP() << "initialize() already ran in this process";
  StderrCapture cap(_dir + "/err");
  std::string big(5000, 'x');
  gEarly.info("%s|", big.c_str());
  EXPECT_EQ(cap.text(), "INFO - " + big + "|\n");
}

TEST_F(LoggerTest, InitializeFailuresReturnFalse) {
  // Each in a child process, since initialize() runs once per process.
  EXPECT_EXIT(
      {
        fclose(stderr);
        _exit(Logger::initialize("/nonexistent/log.cfg", "/", true) ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
  std::string cfg = _dir + "/bad.cfg";
  { std::ofstream(cfg) << "rootCategory=DEBUG\n<!-- never closed\n"; }
  EXPECT_EXIT(_exit(Logger::initialize(cfg, "/", true) ? 1 : 0), ::testing::ExitedWithCode(0),
              "ERROR - .*/bad.cfg:2: Unterminated XML comment started");
}

TEST_F(LoggerTest, InitializeRoutesByChannel) {
  if (Logger::isInitialized()) GTEST_SKIP() << "initialize() already ran in this process";
  std::string cfg = _dir + "/log.cfg";
  {
    std::ofstream out(cfg);
    out << "# test configuration\n"
           "log4cpp.rootCategory=WARN,main\n"
           "category.early=DEBUG\n"
           "category.quiet=EMERG\n"
           "appender.main.fileName=${VELMOR_HOME}/main.log\n"
           "appender.main.layout=PatternLayout\n"
           "appender.main.layout.ConversionPattern=%p %c %m%n\n"
           "what is this\n";
  }
  ASSERT_TRUE(Logger::initialize(cfg, _dir, true));
  EXPECT_TRUE(Logger::isInitialized());

  Logger late("late");  // made after initialize(): takes the root's level
  Logger quiet("quiet");
  errno = EACCES;
  gEarly.debug("early debug passes");
  late.info("late info is filtered");
  late.warn("late warn: %m");
  quiet.crit("quiet crit is filtered");
  quiet.logText(Logger::EMERG, "quiet emerg passes");
  EXPECT_EQ(errno, EACCES);
  EXPECT_FALSE(late.isEnabled(Logger::INFO));
  EXPECT_TRUE(gEarly.isDebugEnabled());

  EXPECT_EQ(readAll(_dir + "/main.log"),
            "WARN Logger " + cfg + ":8: Parse error at \"what is this\"\n"
            "DEBUG early early debug passes\n"
            "WARN late late warn: Permission denied\n"
            "EMERG quiet quiet emerg passes\n");
}

}  // namespace
