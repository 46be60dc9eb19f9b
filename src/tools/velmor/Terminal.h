// Terminal: what the command does differently when a person is watching:
// colour (a terminal on standard output and NO_COLOR not set), progress on
// standard error (a terminal there), and a password read without echo.
//
// ProgressLine keeps one line of standard error up to date ("\r<text>",
// the rest of the line cleared) at most every 200 ms, and clears it at
// done(). It prints nothing unless standard error is a terminal.
//
// One thread.
#pragma once

#include <chrono>

#include "util/Str.h"

class Terminal {
 public:
  static bool isTerminal(int fd);
  // Colour on standard output: a terminal there and NO_COLOR unset.
  static bool colourOnStdout();
  // Reads a line from /dev/tty with echo off after writing `prompt` there.
  // False when there is no terminal.
  static bool readPassword(const char* prompt, Str& out);
};

class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine() { done(); }
  bool active() const { return _on; }
  // Shows `text` unless the last update was less than 200 ms ago (force:
  // always).
  void update(const Str& text, bool force = false);
  // Clears the line.
  void done();

 private:
  bool _on;
  bool _shown = false;
  std::chrono::steady_clock::time_point _last;
};
