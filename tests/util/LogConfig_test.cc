// The log configuration parser: text in, channels and messages out.
#include "util/LogConfig.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/Logger.h"

namespace {

std::string appenderNames(const LogChannel* ch) {
  std::string out;
  for (const LogAppender* a : ch->getAppenders()) {
    if (!out.empty()) out += ",";
    out += a->getName();
  }
  return out;
}

std::vector<std::string> messageTexts(const LogConfig& c) {
  std::vector<std::string> out;
  for (const auto& m : c.messages()) out.push_back(std::string(Logger::levelName(m.level)) + " " + m.text);
  return out;
}

struct ChannelRow {
  const char* name;
  const char* text;
  const char* channel;  // channel to inspect
  const char* level;
  const char* appenders;
};

TEST(LogConfig, ChannelsFromText) {
  const ChannelRow rows[] = {
      {"empty file keeps defaults", "", "root", "INFO", "rootAppender"},
      {"root level only inherits appenders", "rootCategory=DEBUG", "root", "DEBUG", "rootAppender"},
      {"root level and appender", "rootCategory=WARN, A1", "root", "WARN", "A1"},
      {"prefix, blanks and tabs", "  log4cpp.rootCategory = error\tA1 ,A2", "root", "ERROR", "A1,A2"},
      {"level word anywhere in list", "rootCategory=A1, CRIT, A2", "root", "CRIT", "A1,A2"},
      {"duplicate appender kept once", "rootCategory=A1,A1", "root", "INFO", "A1"},
      {"category copies root", "rootCategory=WARN,A1\ncategory.x=", "x", "WARN", "A1"},
      {"category level keeps root appenders", "rootCategory=WARN,A1\ncategory.x=DEBUG", "x", "DEBUG", "A1"},
      {"category appender replaces inherited", "rootCategory=WARN,A1\ncategory.x=A2", "x", "WARN", "A2"},
      {"category before root still copies final root", "category.x=FATAL\nrootCategory=NOTICE,A3", "x",
       "FATAL", "A3"},
      {"later category line amends earlier", "category.x=DEBUG,A1\ncategory.x=A2", "x", "DEBUG", "A2"},
      {"root unchanged by category", "rootCategory=INFO,A1\ncategory.x=DEBUG,A2", "root", "INFO", "A1"},
      {"hash comment cuts line", "rootCategory=DEBUG # ,A9", "root", "DEBUG", "rootAppender"},
      {"xml comment removed", "rootCategory=<!-- DEBUG, -->EMERG", "root", "EMERG", "rootAppender"},
      {"xml comment spanning lines", "<!--\nrootCategory=DEBUG\n-->\nrootCategory=ALERT", "root", "ALERT",
       "rootAppender"},
      {"hash inside xml comment ignored", "<!-- # -->rootCategory=DEBUG", "root", "DEBUG", "rootAppender"},
      {"CRLF line ends", "rootCategory=DEBUG,A1\r\ncategory.y=A2\r\n", "y", "DEBUG", "A2"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    LogConfig c;
    ASSERT_TRUE(c.parse(r.text, "log.cfg"));
    c.buildChannels();
    LogChannel* ch = c.findChannel(r.channel);
    ASSERT_NE(ch, nullptr);
    EXPECT_STREQ(Logger::levelName(ch->getLevel()), r.level);
    EXPECT_EQ(appenderNames(ch), r.appenders);
  }
}

struct MessageRow {
  const char* name;
  const char* text;
  bool ok;
  std::vector<std::string> messages;
};

TEST(LogConfig, MessagesFromText) {
  const MessageRow rows[] = {
      {"clean file", "rootCategory=INFO\nappender.A1=FileAppender\n", true, {}},
      {"unknown key", "bogus=1", true, {"WARN f.cfg:1: Parse error at \"bogus=1\""}},
      {"no equals sign, line number counted", "\n\nrootCategory", true,
       {"WARN f.cfg:3: Parse error at \"rootCategory\""}},
      {"errors after reading, in order", "x=1\nrootCategory=INFO\ny=2", true,
       {"WARN f.cfg:1: Parse error at \"x=1\"", "WARN f.cfg:3: Parse error at \"y=2\""}},
      {"empty category name", "category.=INFO", true, {"WARN f.cfg:1: Parse error at \"category.=INFO\""}},
      {"maxFileSize not digits", "appender.A.maxFileSize=10k", true,
       {"WARN f.cfg:1: Parse error at \"appender.A.maxFileSize=10k\""}},
      {"maxBackupIndex negative", "appender.A.maxBackupIndex=-1", true,
       {"WARN f.cfg:1: Parse error at \"appender.A.maxBackupIndex=-1\""}},
      {"maxFileSize overflow", "appender.A.maxFileSize=99999999999999999999999", true,
       {"WARN f.cfg:1: Parse error at \"appender.A.maxFileSize=99999999999999999999999\""}},
      {"unknown layout", "appender.A.layout=FancyLayout", true,
       {"WARN f.cfg:1: Parse error at \"appender.A.layout=FancyLayout\""}},
      {"unknown attribute", "appender.A.colour=red", true,
       {"WARN f.cfg:1: Parse error at \"appender.A.colour=red\""}},
      {"error text is the trimmed line without prefix", "  log4cpp.nonsense  ", true,
       {"WARN f.cfg:1: Parse error at \"nonsense\""}},
      {"unterminated comment fails, no parse errors", "x=1\n<!-- open\nrootCategory=INFO", false,
       {"ERROR f.cfg:2: Unterminated XML comment started"}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    LogConfig c;
    EXPECT_EQ(c.parse(r.text, "f.cfg"), r.ok);
    EXPECT_EQ(messageTexts(c), r.messages);
  }
}

TEST(LogConfig, AppenderAttributes) {
  LogConfig c;
  ASSERT_TRUE(c.parse("appender.A.fileName=${VELMOR_HOME}/var/log/a.log\n"
                      "appender.A.maxFileSize=1000\n"
                      "appender.A.maxBackupIndex=3\n"
                      "appender.A.layout.ConversionPattern=%p|%m%n\n"
                      "appender.A.layout=PatternLayout\n"
                      "appender.B.layout=SimpleLayout\n",
                      "f.cfg"));
  EXPECT_TRUE(c.messages().empty());
  LogAppender* a = c.findAppender("A");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->getFileName(), "${VELMOR_HOME}/var/log/a.log");
  EXPECT_EQ(a->getMaxFileSize(), 1000u);
  EXPECT_EQ(a->getMaxBackupIndex(), 3u);
  EXPECT_EQ(a->getLayoutName(), "PatternLayout");
  ASSERT_NE(c.findAppender("B"), nullptr);
  EXPECT_EQ(c.findAppender("nope"), nullptr);
}

// What setup() makes of an appender without a file, with and without files.
TEST(LogConfig, SetupWithoutFileName) {
  struct Row {
    const char* text;
    bool useFiles;
    LogAppender::Mode mode;
    std::vector<std::string> messages;
  };
  const Row rows[] = {
      {"rootCategory=INFO,A", false, LogAppender::SILENT, {}},
      {"rootCategory=INFO,A", true, LogAppender::STDERR,
       {"WARN Appender \"A\" has no filename, assuming stderr"}},
      {"rootCategory=INFO,A\nappender.A.maxBackupIndex=2\nappender.A.maxFileSize=5", true, LogAppender::STDERR,
       {"WARN Appender \"A\" has no filename, assuming stderr",
        "WARN Appender \"A\" has maxBackupIndex set without specifying a filename, ignoring",
        "WARN Appender \"A\" has maxFileSize set without specifying a filename, ignoring"}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.text);
    LogConfig c;
    ASSERT_TRUE(c.parse(r.text, "f.cfg"));
    c.buildChannels();
    c.setupAppenders("/home", r.useFiles);
    ASSERT_NE(c.findAppender("A"), nullptr);
    EXPECT_EQ(c.findAppender("A")->getMode(), r.mode);
    EXPECT_EQ(c.findAppender("A")->getMaxBackupIndex(), 0u);
    EXPECT_EQ(c.findAppender("A")->getMaxFileSize(), 0u);
    EXPECT_EQ(messageTexts(c), r.messages);
  }
}

TEST(LogConfig, ChannelForMakesCopyOfRoot) {
  LogConfig c;
  ASSERT_TRUE(c.parse("rootCategory=ERROR,A1\ncategory.known=DEBUG", "f.cfg"));
  c.buildChannels();
  LogChannel* unknown = c.channelFor("loader");
  EXPECT_EQ(unknown->getName(), "loader");
  EXPECT_EQ(unknown->getLevel(), Logger::ERROR);
  EXPECT_EQ(appenderNames(unknown), "A1");
  EXPECT_EQ(c.channelFor("loader"), unknown);
  EXPECT_EQ(c.channelFor("known")->getLevel(), Logger::DEBUG);
}

// A run-time change of the root reaches the channels that copied it, not
// those with a level of their own (a category line or an earlier run-time
// change); a named change makes the channel when it does not exist yet.
TEST(LogConfig, RunTimeLevelChange) {
  LogConfig c;
  ASSERT_TRUE(c.parse("rootCategory=ERROR,A1\ncategory.known=DEBUG", "f.cfg"));
  c.buildChannels();
  LogChannel* copied = c.channelFor("loader");
  c.setChannelLevel("", Logger::WARN);
  EXPECT_EQ(c.root()->getLevel(), Logger::WARN);
  EXPECT_EQ(copied->getLevel(), Logger::WARN);
  EXPECT_EQ(c.findChannel("known")->getLevel(), Logger::DEBUG);
  c.setChannelLevel("known", Logger::CRIT);
  EXPECT_EQ(c.findChannel("known")->getLevel(), Logger::CRIT);
  c.setChannelLevel("fresh", Logger::INFO);
  ASSERT_NE(c.findChannel("fresh"), nullptr);
  EXPECT_EQ(c.findChannel("fresh")->getLevel(), Logger::INFO);
  EXPECT_EQ(appenderNames(c.findChannel("fresh")), "A1");
  EXPECT_EQ(copied->getLevel(), Logger::WARN);
  c.setChannelLevel("", Logger::DEBUG);
  EXPECT_EQ(copied->getLevel(), Logger::DEBUG);
  EXPECT_EQ(c.findChannel("fresh")->getLevel(), Logger::INFO);
  EXPECT_EQ(c.findChannel("known")->getLevel(), Logger::CRIT);
}

TEST(LogConfig, MissingFile) {
  LogConfig c;
  EXPECT_FALSE(c.readFile("/nonexistent/dir/log.cfg"));
  EXPECT_EQ(messageTexts(c), std::vector<std::string>{"ERROR Couldn't open log file configuration "
                                                      "\"/nonexistent/dir/log.cfg\": No such file or directory"});
}

TEST(LogConfig, LevelNames) {
  EXPECT_EQ(LogConfig::parseLevel("debug"), Logger::DEBUG);
  EXPECT_EQ(LogConfig::parseLevel("Emerg"), Logger::EMERG);
  EXPECT_EQ(LogConfig::parseLevel("WARNING"), -1);
  EXPECT_STREQ(Logger::levelName(9), "???");
  EXPECT_STREQ(Logger::levelName(-1), "???");
}

}  // namespace
