// LogFormat: a compiled log line format ("%d{ABSOLUTE} %-5p %c %m%n").
//
// The format is compiled once into a list of atoms, each a literal text or a
// conversion with its flags and widths. After "%" come an optional "-" (left
// justify) or "0" (pad with zeros), digits for the minimum width, "." and
// digits for the maximum width (longer output is cut at the end), and the
// conversion letter:
//   m message      n newline      c channel name     p level word
//   t name of the current thread  r ms since start   R seconds since start
//   u clock() ticks               d or d{...} the time
// The brace text of %d is a strftime format in which "%l" gives the
// milliseconds, or one of "ABSOLUTE" ("%H:%M:%S,%l"), "DATE"
// ("%d %b %Y %H:%M:%S,%l"), "ISO8601" ("%Y-%m-%d %H:%M:%S,%l"); empty is
// ISO8601. "%%" is a literal percent; an unknown letter drops its atom.
//
// format() is const and may run on many threads at once; the broken-down
// local time is cached per thread for the second last seen.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

class LogFormat {
 public:
  // One message as the formats see it.
  struct Event {
    const char* channel;
    int level;
    const char* message;
    size_t messageLength;
    struct timespec when;  // real time of the call
  };

  explicit LogFormat(const std::string& pattern);

  // Appends the formatted line to `out`.
  void format(std::string& out, const Event& ev) const;

  const std::string& pattern() const { return _pattern; }
  size_t atomCount() const { return _atoms.size(); }

  // The reference point of %r and %R (first use in the process).
  static struct timespec startTime();

 private:
  enum Kind { LITERAL, MESSAGE, NEWLINE, CHANNEL, LEVEL, THREAD, MILLIS, SECONDS, CLOCK, DATE };
  struct Atom {
    Kind kind = LITERAL;
    bool leftJustify = false;
    bool zeroPad = false;
    size_t minWidth = 0;
    size_t maxWidth = 0;  // 0: no limit
    std::string text;     // LITERAL
    // DATE: strftime formats between the "%l" places; a "%l" stands between
    // every two pieces.
    std::vector<std::string> datePieces;
  };

  // Walks the pattern; with `out` null only counts the atoms.
  static size_t compile(const std::string& pattern, std::vector<Atom>* out);
  static void appendPadded(std::string& out, const char* text, size_t len, const Atom& a);
  static void appendDate(std::string& out, const Atom& a, const struct timespec& when);

  std::string _pattern;
  std::vector<Atom> _atoms;
};
