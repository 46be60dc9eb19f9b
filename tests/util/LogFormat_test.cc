// Log line formats: pattern in, line out, for one fixed message.
#include "util/LogFormat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "util/Logger.h"

namespace {

class LogFormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  static std::string render(const char* pattern, int level = Logger::WARN, const char* msg = "hello") {
    LogFormat f(pattern);
    // 2023-11-14 22:13:20.123456789 UTC
    LogFormat::Event ev{"loader", level, msg, strlen(msg), {1700000000, 123456789}};
    std::string out = "<";
    f.format(out, ev);
    return out;
  }
};

TEST_F(LogFormatTest, Conversions) {
  struct Row {
    const char* pattern;
    const char* expected;
  };
  const Row rows[] = {
      {"", "<"},
      {"plain text", "<plain text"},
      {"%m%n", "<hello\n"},
      {"%c: %p: %m", "<loader: WARN: hello"},
      {"100%% sure", "<100% sure"},
      {"%%m", "<%m"},
      {"[%8p]", "<[    WARN]"},
      {"[%-8p]", "<[WARN    ]"},
      {"[%08p]", "<[0000WARN]"},
      {"[%.3m]", "<[hel]"},
      {"[%7.3m]", "<[    hel]"},
      {"[%-7.3m]", "<[hel    ]"},
      {"[%2m]", "<[hello]"},
      {"-8p is %-8p:", "<-8p is WARN    :"},
      {"a%qb", "<ab"},
      {"a%-5.2qb%m", "<abhello"},
      {"tail %", "<tail "},
      {"tail %-5", "<tail "},
      {"%d", "<2023-11-14 22:13:20,123"},
      {"%d{}", "<2023-11-14 22:13:20,123"},
      {"%d{ISO8601}", "<2023-11-14 22:13:20,123"},
      {"%d{ABSOLUTE}", "<22:13:20,123"},
      {"%d{DATE}", "<14 Nov 2023 22:13:20,123"},
      {"%d{%s.%l}|%m", "<1700000000.123|hello"},
      {"%d{%l%l}", "<123123"},
      {"%d{%H:%M", "<22:13"},
      {"[%-15d{ABSOLUTE}]", "<[22:13:20,123   ]"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.pattern);
    EXPECT_EQ(render(r.pattern), r.expected);
  }
}

TEST_F(LogFormatTest, LevelWords) {
  EXPECT_EQ(render("%p", Logger::DEBUG), "<DEBUG");
  EXPECT_EQ(render("%p", Logger::EMERG), "<EMERG");
  EXPECT_EQ(render("%p", 42), "<???");
}

// Numbers that depend on the clock: only their shape is fixed.
TEST_F(LogFormatTest, ElapsedAndThreadAtoms) {
  std::string r = render("%r|%R|%u|%t");
  ASSERT_EQ(r[0], '<');
  size_t a = r.find('|'), b = r.find('|', a + 1), c = r.find('|', b + 1);
  ASSERT_NE(c, std::string::npos);
  EXPECT_GE(std::stoll(r.substr(1, a - 1)), 0);
  EXPECT_GE(std::stoll(r.substr(a + 1, b - a - 1)), 0);
  EXPECT_GE(std::stoll(r.substr(b + 1, c - b - 1)), 0);
  // No Thread object runs this test's thread.
  EXPECT_EQ(r.substr(c + 1), "UNKNOWN-THREAD");
}

TEST_F(LogFormatTest, MessageIsNotNulTerminated) {
  LogFormat f("[%m]");
  const char text[] = "abcdef";
  LogFormat::Event ev{"c", Logger::INFO, text, 3, {0, 0}};
  std::string out;
  f.format(out, ev);
  EXPECT_EQ(out, "[abc]");
}

}  // namespace
