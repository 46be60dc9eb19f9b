// LogLayout: the shared formats.
#include "util/LogLayout.h"

#include "util/LogFormat.h"

const LogFormat& LogLayout::basic() {
  static const LogFormat* f = new LogFormat("%R %p %c %m%n");
  return *f;
}

const LogFormat& LogLayout::simple() {
  static const LogFormat* f = new LogFormat("%-8p: %m%n");
  return *f;
}

const LogFormat& LogLayout::plain() {
  static const LogFormat* f = new LogFormat("%m%n");
  return *f;
}

bool LogLayout::isKnownName(const std::string& name) {
  return name == "BasicLayout" || name == "SimpleLayout" || name == "PatternLayout";
}
