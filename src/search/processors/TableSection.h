// TableSection: one section ("pre", "header", "body" or "post") of a
// `multikv` stanza, and the line-cutting that tables share.
//
// Keys of a section <s>, all optional:
//   <s>.start      regex: the section starts at the first line matching it
//   <s>.end        regex: the section ends before the first line matching it
//   <s>.member     regex: only lines matching it belong to the section
//   <s>.ignore     regex, or _all_ / _none_: lines to pass over
//   <s>.offset     lines between the start line and the section's first line
//   <s>.linecount  lines the section has at most
//   <s>.replace    "<regex>" = "<text>", ...: replacements made on each line
//                  before it is cut ("\1" stands for a group)
//   <s>.tokens     how a line is cut into cells:
//                    _tokenize_, <max>, "<delimiter chars>"   (default: a
//                      header is cut at white space)
//                    _align_ (default of a body): cells under the header's
//                      words, by the column positions of the header line
//                    _chop_, <column>, <column>, ...: cut at these offsets
//                    _regex_, <regex>: every match is a cell (group 1 if
//                      the regex has one)
//                    _token_list_, <name>, <name>, ...: header only; the
//                      names themselves, no header line is read
// Not supported (logged at debug level and passed over): .run_kv,
// .root_event, and the values _black_ and _white_.
//
// Read-only after load(); one thread uses a section.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class PropertiesMap;

class TableSection {
 public:
  // A cell: offsets [start, end) in its line. start == end: empty.
  struct Span {
    size_t start;
    size_t end;
  };
  enum TokenMode { TOKENS_DEFAULT, TOKENS_TOKENIZE, TOKENS_ALIGN, TOKENS_CHOP, TOKENS_REGEX, TOKENS_LIST };

  explicit TableSection(const Str& name) : _name(name) {}
  TableSection(const TableSection&) = delete;
  TableSection& operator=(const TableSection&) = delete;

  // Reads the keys of this section from the stanza. False with `error` set
  // on a bad regex or a bad tokens value.
  bool load(const PropertiesMap& stanza, Str& error);

  const Str& getName() const { return _name; }
  bool hasStart() const { return _start != nullptr; }
  bool isStart(const StrSegment& line) const { return _start && _start->matches(line); }
  bool isEnd(const StrSegment& line) const { return _end && _end->matches(line); }
  bool isMember(const StrSegment& line) const { return !_member || _member->matches(line); }
  bool isIgnored(const StrSegment& line) const { return _ignoreAll || (_ignore && _ignore->matches(line)); }
  bool ignoresAll() const { return _ignoreAll; }
  long offset() const { return _offset; }
  long lineCount() const { return _lineCount; }
  TokenMode tokenMode() const { return _mode; }
  const std::vector<Str>& tokenList() const { return _list; }

  // Applies the replacements of the section to `line` (in place).
  void replace(Str& line) const;
  // Cuts a line by this section's tokens rule; `header` is used by _align_
  // (and by the default of a body). One span per cell.
  void cut(const StrSegment& line, const std::vector<Span>* header, std::vector<Span>& out) const;

  // The white-space separated words of a line.
  static void words(const StrSegment& line, std::vector<Span>& out);
  // Cuts a line into one cell per header column: every word of the line
  // goes to the column it overlaps most, or failing that to the nearest,
  // never to a column left of the previous word's; a cell runs from its
  // first word to its last.
  static void align(const StrSegment& line, const std::vector<Span>& header, std::vector<Span>& out);

 private:
  Str _name;
  std::unique_ptr<Regex> _start, _end, _member, _ignore, _tokenRe;
  bool _ignoreAll = false;
  long _offset = 0;
  long _lineCount = 0;  // 0: no bound
  std::vector<std::pair<std::unique_ptr<Regex>, Str>> _replace;
  TokenMode _mode = TOKENS_DEFAULT;
  size_t _maxTokens = 0;
  std::vector<bool> _delims;
  std::vector<size_t> _chops;
  std::vector<Str> _list;
};
