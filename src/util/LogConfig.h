// LogConfig: the log configuration file, parsed and turned into channels and
// appenders.
//
// Syntax, line by line:
//   - a line ends at "#"; text between "<!--" and "-->" is removed and may
//     span lines (an unterminated one fails the whole file);
//   - leading blanks and an optional "log4cpp." prefix are skipped; empty
//     lines are passed over;
//   - "rootCategory=<list>" sets the root channel; "category.<name>=<list>"
//     sets a channel made from a copy of the root (applied after the whole
//     file, in order, after the root);
//   - "appender.<name>.<attribute>=<value>" sets one attribute of an
//     appender; "appender.<name>=<value>" is accepted and ignored;
//   - anything else is a parse error (a warning; the file still counts).
// A <list> is words split by blanks, tabs and commas, each a level name or
// an appender name ("rootAppender" is the built-in one); the first appender
// word drops the inherited appenders.
//
// The stages are separate so that a parse can be run and inspected without
// touching files or process state: parse() -> buildChannels() ->
// setupAppenders() (which opens files). Messages are collected, in order, for
// the caller to log once the configuration is installed.
//
// Threads: built on one thread. Once installed, channelFor() may be called
// from any thread (it takes the internal mutex); the rest is read-only.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "util/LogAppender.h"
#include "util/Mutex.h"

class LogChannel;

class LogConfig {
 public:
  using Message = LogAppender::Message;

  // Defaults of the root channel when the file does not set it.
  static const int kDefaultRootLevel;
  static const char* const kRootAppenderName;

  LogConfig();
  ~LogConfig();
  LogConfig(const LogConfig&) = delete;
  LogConfig& operator=(const LogConfig&) = delete;

  // Reads and parses a file. False (with a message) when it can't be
  // opened or parse() fails.
  bool readFile(const std::string& path);
  // Parses the text; `fileName` names it in messages. False on an
  // unterminated comment; parse errors are only warnings.
  bool parse(const std::string& text, const std::string& fileName);

  // Makes the root channel and the channels of "category." lines.
  void buildChannels();
  // Sets up every appender (may open files).
  void setupAppenders(const std::string& homeDir, bool useFiles);

  LogChannel* root() const { return _root; }
  // The named channel, or null.
  LogChannel* findChannel(const std::string& name) const;
  // The named channel, made from the root on need. REQUIRES: buildChannels().
  LogChannel* channelFor(const std::string& name);
  LogAppender* findAppender(const std::string& name) const;
  // Changes a level at run time: the named channel's (made from the root on
  // need), or, for an empty name, the root's and that of every channel
  // whose level is still the root's copy (no "category." line of its own,
  // no run-time level of its own). Takes the channels mutex.
  void setChannelLevel(const std::string& name, int level);

  const std::vector<Message>& messages() const { return _messages; }

  // A level name (any case) to its number, or -1.
  static int parseLevel(const std::string& word);

 private:
  struct ChannelLine {
    std::string name;
    std::string value;
  };

  void parseLine(const std::string& line, const std::string& fileName, unsigned lineNo,
                 std::vector<Message>& parseErrors);
  bool parseAppenderAttribute(const std::string& name, const std::string& attr, const std::string& value);
  LogAppender* appenderFor(const std::string& name);
  // Applies a channel's word list; true if it named an appender.
  bool applyList(const std::string& value, int& level, std::vector<LogAppender*>& appenders);
  LogChannel* makeChannel(const std::string& name);

  std::string _rootValue;
  std::vector<ChannelLine> _categoryLines;
  std::vector<std::string> _runTimeLevels;  // channels given a level by setChannelLevel
  std::map<std::string, std::unique_ptr<LogAppender>> _appenders;
  std::map<std::string, std::unique_ptr<LogChannel>> _channels;
  LogChannel* _root = nullptr;
  std::vector<Message> _messages;
  Mutex _channelsMutex;  // channelFor() after install; NOLOG only
};
