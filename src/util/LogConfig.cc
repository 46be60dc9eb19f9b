// LogConfig: the configuration parser and the building of channels.
#include "util/LogConfig.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "util/LogChannel.h"
#include "util/LogLayout.h"
#include "util/Logger.h"

const int LogConfig::kDefaultRootLevel = Logger::INFO;
const char* const LogConfig::kRootAppenderName = "rootAppender";

namespace {
const char* const kBlanks = " \t\r\n\f\v";

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(kBlanks);
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(kBlanks);
  return s.substr(b, e - b + 1);
}

bool allDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return true;
}

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

std::string formatLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatLine(const char* fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof(buf)) return std::string(buf, n);
  std::string out(static_cast<size_t>(n), '\0');
  va_start(ap, fmt);
  vsnprintf(out.data(), out.size() + 1, fmt, ap);
  va_end(ap);
  return out;
}
}  // namespace

LogConfig::LogConfig() {}
LogConfig::~LogConfig() {}

int LogConfig::parseLevel(const std::string& word) {
  for (int l = Logger::DEBUG; l <= Logger::EMERG; ++l)
    if (strcasecmp(word.c_str(), Logger::levelName(l)) == 0) return l;
  return -1;
}

bool LogConfig::readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    _messages.push_back(
        {Logger::ERROR, formatLine("Couldn't open log file configuration \"%s\": %s", path.c_str(), strerror(errno))});
    return false;
  }
  std::ostringstream ss;
  ss << in.rdbuf();
  return parse(ss.str(), path);
}

bool LogConfig::parse(const std::string& text, const std::string& fileName) {
  std::vector<Message> parseErrors;
  bool inComment = false;
  unsigned commentLine = 0;
  unsigned lineNo = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string raw = text.substr(pos, eol - pos);
    pos = eol + 1;
    ++lineNo;

    // Remove XML comments (which may span lines), and cut at "#" outside them.
    std::string line;
    size_t i = 0;
    while (i < raw.size()) {
      if (inComment) {
        size_t end = raw.find("-->", i);
        if (end == std::string::npos) {
          i = raw.size();
        } else {
          inComment = false;
          i = end + 3;
        }
        continue;
      }
      size_t hash = raw.find('#', i);
      size_t open = raw.find("<!--", i);
      if (hash != std::string::npos && (open == std::string::npos || hash < open)) {
        line.append(raw, i, hash - i);
        break;
      }
      if (open == std::string::npos) {
        line.append(raw, i, std::string::npos);
        break;
      }
      line.append(raw, i, open - i);
      inComment = true;
      commentLine = lineNo;
      i = open + 4;
    }
    parseLine(line, fileName, lineNo, parseErrors);
  }
  if (inComment) {
    _messages.push_back({Logger::ERROR, formatLine("%s:%u: Unterminated XML comment started", fileName.c_str(),
                                                    commentLine)});
    return false;
  }
  _messages.insert(_messages.end(), parseErrors.begin(), parseErrors.end());
  return true;
}

void LogConfig::parseLine(const std::string& rawLine, const std::string& fileName, unsigned lineNo,
                          std::vector<Message>& parseErrors) {
  std::string line = trim(rawLine);
  if (startsWith(line, "log4cpp.")) line = trim(line.substr(8));
  if (line.empty()) return;

  auto parseError = [&] {
    parseErrors.push_back(
        {Logger::WARN, formatLine("%s:%u: Parse error at \"%s\"", fileName.c_str(), lineNo, line.c_str())});
  };
  size_t eq = line.find('=');
  if (eq == std::string::npos) return parseError();
  std::string key = trim(line.substr(0, eq));
  std::string value = trim(line.substr(eq + 1));

  if (key == "rootCategory") {
    _rootValue = value;
    return;
  }
  if (startsWith(key, "category.")) {
    std::string name = key.substr(9);
    if (name.empty()) return parseError();
    _categoryLines.push_back({name, value});
    return;
  }
  if (startsWith(key, "appender.")) {
    std::string rest = key.substr(9);
    size_t dot = rest.find('.');
    if (dot == std::string::npos) {
      if (rest.empty()) return parseError();
      return;  // "appender.X = <class>": accepted, nothing to do
    }
    std::string name = rest.substr(0, dot);
    std::string attr = rest.substr(dot + 1);
    if (name.empty() || !parseAppenderAttribute(name, attr, value)) return parseError();
    return;
  }
  parseError();
}

bool LogConfig::parseAppenderAttribute(const std::string& name, const std::string& attr,
                                       const std::string& value) {
  if (attr == "fileName") {
    appenderFor(name)->setFileName(value);
    return true;
  }
  if (attr == "maxFileSize" || attr == "maxBackupIndex") {
    if (!allDigits(value)) return false;
    errno = 0;
    unsigned long long n = strtoull(value.c_str(), nullptr, 10);
    if (errno == ERANGE) return false;
    if (attr == "maxFileSize") {
      appenderFor(name)->setMaxFileSize(n);
    } else {
      if (n > 1000000) return false;
      appenderFor(name)->setMaxBackupIndex(static_cast<unsigned>(n));
    }
    return true;
  }
  if (attr == "layout") {
    if (!LogLayout::isKnownName(value)) return false;
    appenderFor(name)->setLayoutName(value);
    return true;
  }
  if (attr == "layout.ConversionPattern") {
    appenderFor(name)->setConversionPattern(value);
    return true;
  }
  return false;
}

LogAppender* LogConfig::appenderFor(const std::string& name) {
  auto it = _appenders.find(name);
  if (it != _appenders.end()) return it->second.get();
  LogAppender* a = new LogAppender(name);
  _appenders.emplace(name, std::unique_ptr<LogAppender>(a));
  return a;
}

LogAppender* LogConfig::findAppender(const std::string& name) const {
  auto it = _appenders.find(name);
  return it == _appenders.end() ? nullptr : it->second.get();
}

bool LogConfig::applyList(const std::string& value, int& level, std::vector<LogAppender*>& appenders) {
  bool replaced = false;
  size_t i = 0;
  while (i < value.size()) {
    size_t b = value.find_first_not_of(" \t,", i);
    if (b == std::string::npos) break;
    size_t e = value.find_first_of(" \t,", b);
    if (e == std::string::npos) e = value.size();
    std::string word = value.substr(b, e - b);
    i = e;
    int l = parseLevel(word);
    if (l >= 0) {
      level = l;
      continue;
    }
    if (!replaced) {
      appenders.clear();
      replaced = true;
    }
    LogAppender* a = appenderFor(word);
    bool dup = false;
    for (LogAppender* x : appenders) dup = dup || x == a;
    if (!dup) appenders.push_back(a);
  }
  return replaced;
}

void LogConfig::buildChannels() {
  int level = kDefaultRootLevel;
  std::vector<LogAppender*> appenders;
  // The built-in appender exists only if the root keeps it.
  if (!applyList(_rootValue, level, appenders)) appenders.push_back(appenderFor(kRootAppenderName));
  auto root = std::make_unique<LogChannel>("root", level, appenders);
  _root = root.get();
  _channels["root"] = std::move(root);
  for (const ChannelLine& c : _categoryLines) {
    LogChannel* ch = findChannel(c.name);
    if (ch == nullptr) ch = makeChannel(c.name);
    int l = ch->getLevel();
    std::vector<LogAppender*> a = ch->getAppenders();
    applyList(c.value, l, a);
    ch->setLevel(l);
    ch->setAppenders(a);
  }
}

LogChannel* LogConfig::makeChannel(const std::string& name) {
  auto ch = std::make_unique<LogChannel>(name, _root->getLevel(), _root->getAppenders());
  LogChannel* p = ch.get();
  _channels[name] = std::move(ch);
  return p;
}

LogChannel* LogConfig::findChannel(const std::string& name) const {
  auto it = _channels.find(name);
  return it == _channels.end() ? nullptr : it->second.get();
}

LogChannel* LogConfig::channelFor(const std::string& name) {
  NOLOG_ScopedLock lock(_channelsMutex);
  LogChannel* ch = findChannel(name);
  return ch ? ch : makeChannel(name);
}

void LogConfig::setChannelLevel(const std::string& name, int level) {
  NOLOG_ScopedLock lock(_channelsMutex);
  if (!name.empty()) {
    LogChannel* ch = findChannel(name);
    (ch ? ch : makeChannel(name))->setLevel(level);
    if (std::find(_runTimeLevels.begin(), _runTimeLevels.end(), name) == _runTimeLevels.end())
      _runTimeLevels.push_back(name);
    return;
  }
  for (auto& [n, ch] : _channels) {
    bool own = std::find(_runTimeLevels.begin(), _runTimeLevels.end(), n) != _runTimeLevels.end();
    for (const ChannelLine& c : _categoryLines) own = own || c.name == n;
    if (!own) ch->setLevel(level);
  }
}

void LogConfig::setupAppenders(const std::string& homeDir, bool useFiles) {
  for (auto& [name, a] : _appenders) a->setup(homeDir, useFiles, _messages);
}
