#include "tools/velmor/Terminal.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <termios.h>
#include <string.h>
#include <unistd.h>

bool Terminal::isTerminal(int fd) { return isatty(fd) == 1; }

bool Terminal::colourOnStdout() { return isTerminal(1) && getenv("NO_COLOR") == nullptr; }

bool Terminal::readPassword(const char* prompt, Str& out) {
  int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  struct termios old;
  bool restore = tcgetattr(fd, &old) == 0;
  if (restore) {
    struct termios quiet = old;
    quiet.c_lflag &= ~tcflag_t(ECHO);
    tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  if (write(fd, prompt, strlen(prompt)) < 0) {
    // The prompt is a courtesy; the answer still counts.
  }
  out.clear();
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') out += c;
  if (restore) tcsetattr(fd, TCSAFLUSH, &old);
  if (write(fd, "\n", 1) < 0) {
  }
  close(fd);
  return true;
}

ProgressLine::ProgressLine() : _on(Terminal::isTerminal(2)) {}

void ProgressLine::update(const Str& text, bool force) {
  if (!_on) return;
  auto now = std::chrono::steady_clock::now();
  if (!force && _shown && now - _last < std::chrono::milliseconds(200)) return;
  _last = now;
  _shown = true;
  fprintf(stderr, "\r%s\033[K", text.c_str());
  fflush(stderr);
}

void ProgressLine::done() {
  if (!_on || !_shown) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  _shown = false;
}
