// LogLayout: the named layouts an appender may take, as shared LogFormats.
//
//   "BasicLayout"  -> "%R %p %c %m%n"   (one shared instance)
//   "SimpleLayout" -> "%-8p: %m%n"      (one shared instance)
//   the logger's own layout, for appenders with none -> "%m%n"
// "PatternLayout" has a format of its own per appender (not shared here).
//
// The instances are built on first use and live until exit; any thread may
// use them (LogFormat::format is const).
#pragma once

#include <string>

class LogFormat;

class LogLayout {
 public:
  static const LogFormat& basic();
  static const LogFormat& simple();
  static const LogFormat& plain();

  // True for the layout names the configuration accepts.
  static bool isKnownName(const std::string& name);
};
