// File appenders: rotation, files removed or replaced under the appender,
// and the failures that can only be reported on stderr.
#include "util/LogAppender.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "util/Logger.h"
#include "StderrCapture.h"

namespace {

time_t gNow = 1000;
time_t testClock() { return gNow; }

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }


class LogAppenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-appender-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    _dir = tmpl;
    gNow = 1000;
  }
  void TearDown() override { std::system(("rm -rf '" + _dir + "'").c_str()); }

  std::unique_ptr<LogAppender> fileAppender(const std::string& leaf) {
    auto a = std::make_unique<LogAppender>("A");
    a->setFileName(_dir + "/" + leaf);
    a->setClock(&testClock);
    return a;
  }
  void setup(LogAppender& a) {
    a.setup(_dir, true, _messages);
    ASSERT_EQ(a.getMode(), LogAppender::FILE);
  }
  static void put(LogAppender& a, const std::string& s) { a.write(s.data(), s.size()); }

  std::string _dir;
  std::vector<LogAppender::Message> _messages;
};

TEST_F(LogAppenderTest, RotationKeepsNewestInDotOne) {
  auto a = fileAppender("app.log");
  a->setMaxFileSize(10);
  a->setMaxBackupIndex(2);
  setup(*a);
  EXPECT_TRUE(exists(_dir + "/app.log"));  // opened once at setup to test it
  EXPECT_TRUE(_messages.empty());
  // Lines of 6 bytes: every second line takes the count above 10.
  for (const char* l : {"AAAAA\n", "BBBBB\n", "CCCCC\n", "DDDDD\n", "EEEEE\n", "FFFFF\n", "GGGGG\n"}) put(*a, l);
  EXPECT_EQ(readAll(_dir + "/app.log"), "GGGGG\n");
  EXPECT_EQ(readAll(_dir + "/app.log.1"), "EEEEE\nFFFFF\n");
  EXPECT_EQ(readAll(_dir + "/app.log.2"), "CCCCC\nDDDDD\n");
  EXPECT_FALSE(exists(_dir + "/app.log.3"));
}

TEST_F(LogAppenderTest, RotationFillsGapsBeforeDroppingOldest) {
  auto a = fileAppender("app.log");
  a->setMaxFileSize(3);
  a->setMaxBackupIndex(3);
  setup(*a);
  // A leftover .3 with a free .2 below it: the shift stops at the gap.
  { std::ofstream(_dir + "/app.log.1") << "old1"; }
  { std::ofstream(_dir + "/app.log.3") << "old3"; }
  put(*a, "new\n");
  EXPECT_EQ(readAll(_dir + "/app.log.1"), "new\n");
  EXPECT_EQ(readAll(_dir + "/app.log.2"), "old1");
  EXPECT_EQ(readAll(_dir + "/app.log.3"), "old3");
  EXPECT_EQ(readAll(_dir + "/app.log"), "");
}

TEST_F(LogAppenderTest, ZeroBackupsTruncates) {
  auto a = fileAppender("app.log");
  a->setMaxFileSize(4);
  a->setMaxBackupIndex(0);
  setup(*a);
  put(*a, "12345\n");
  put(*a, "ab\n");
  EXPECT_EQ(readAll(_dir + "/app.log"), "ab\n");
  EXPECT_FALSE(exists(_dir + "/app.log.1"));
}

TEST_F(LogAppenderTest, SizeCountsExistingContent) {
  { std::ofstream(_dir + "/app.log") << "0123456789"; }
  auto a = fileAppender("app.log");
  a->setMaxFileSize(12);
  a->setMaxBackupIndex(1);
  setup(*a);
  put(*a, "abc");
  EXPECT_EQ(readAll(_dir + "/app.log.1"), "0123456789abc");
}

TEST_F(LogAppenderTest, NoRotationWithoutMaxFileSize) {
  auto a = fileAppender("app.log");
  setup(*a);
  for (int i = 0; i < 100; ++i) put(*a, "0123456789\n");
  EXPECT_EQ(readAll(_dir + "/app.log").size(), 1100u);
  EXPECT_FALSE(exists(_dir + "/app.log.1"));
}

TEST_F(LogAppenderTest, RemovedFileIsRecreatedAfterCheck) {
  auto a = fileAppender("app.log");
  setup(*a);
  put(*a, "one\n");
  ASSERT_EQ(unlink((_dir + "/app.log").c_str()), 0);
  gNow += 4;  // within the check interval: still the old (unlinked) file
  put(*a, "lost\n");
  EXPECT_FALSE(exists(_dir + "/app.log"));
  gNow += 1;  // 5 s since the last check
  put(*a, "two\n");
  EXPECT_EQ(readAll(_dir + "/app.log"), "two\n");
}

TEST_F(LogAppenderTest, ClockGoingBackForcesCheck) {
  auto a = fileAppender("app.log");
  setup(*a);
  put(*a, "one\n");
  ASSERT_EQ(rename((_dir + "/app.log").c_str(), (_dir + "/moved.log").c_str()), 0);
  { std::ofstream(_dir + "/app.log") << "fresh\n"; }
  gNow -= 1;
  put(*a, "two\n");
  EXPECT_EQ(readAll(_dir + "/moved.log"), "one\n");
  EXPECT_EQ(readAll(_dir + "/app.log"), "fresh\ntwo\n");
}

TEST_F(LogAppenderTest, HomeDirSubstitutedAndLayoutApplied) {
  auto a = std::make_unique<LogAppender>("A");
  a->setFileName("${VELMOR_HOME}/x.log");
  a->setLayoutName("PatternLayout");
  a->setConversionPattern("[%c] %m%n");
  setup(*a);
  LogFormat::Event ev{"chan", Logger::INFO, "msg", 3, {0, 0}};
  a->append(ev);
  EXPECT_EQ(readAll(_dir + "/x.log"), "[chan] msg\n");
}

TEST_F(LogAppenderTest, LayoutsByName) {
  struct Row {
    const char* layout;
    const char* pattern;
  };
  const Row rows[] = {{"BasicLayout", "%R %p %c %m%n"},
                      {"SimpleLayout", "%-8p: %m%n"},
                      {"", "%m%n"},
                      {"PatternLayout", "%m%n"}};  // no ConversionPattern given
  for (const auto& r : rows) {
    SCOPED_TRACE(r.layout);
    LogAppender a("A");
    a.setLayoutName(r.layout);
    a.setup(_dir, false, _messages);
    EXPECT_EQ(a.getMode(), LogAppender::SILENT);
    EXPECT_EQ(a.layout().pattern(), r.pattern);
  }
}

TEST_F(LogAppenderTest, MaxBackupIndexWithoutMaxFileSizeIgnored) {
  auto a = fileAppender("app.log");
  a->setMaxBackupIndex(4);
  setup(*a);
  ASSERT_EQ(_messages.size(), 1u);
  EXPECT_EQ(_messages[0].text, "Appender \"A\" has maxBackupIndex set without specifying maxFileSize, ignoring");
  EXPECT_EQ(a->getMaxBackupIndex(), 0u);
}

TEST_F(LogAppenderTest, FailuresGoToStderr) {
  StderrCapture cap(_dir + "/stderr.txt");
  LogAppender bad("bad");
  bad.setFileName(_dir + "/no/such/dir/x.log");
  bad.setup(_dir, true, _messages);
  put(bad, "dropped\n");
  LogAppender full("full");
  full.setFileName("/dev/full");
  full.setup(_dir, true, _messages);
  put(full, "cannot\n");
  std::string err = cap.text();
  std::string open = "ERROR - Error opening \"" + _dir + "/no/such/dir/x.log\": No such file or directory\n";
  // Once at setup, once for the write.
  EXPECT_EQ(err.find(open + open), 0u) << err;
  EXPECT_NE(err.find("CRIT - Error writing to \"/dev/full\": No space left on device\n"), std::string::npos) << err;
}

}  // namespace
