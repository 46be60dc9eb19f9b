// MultiKVOptions: the options of the `multikv` command, read from its
// arguments and checked, with their defaults:
//   conf=<stanza>            a stanza of `multikv` describing the table
//   fields <name>...         keep only these columns
//   filter <term>...         keep only table lines holding one of the terms
//   multitable=<bool>  true  a blank line ends a table; another may follow
//   rmorig=<bool>      true  the event is replaced by its table rows
//   passthru=<bool>    false an event with no table is kept (else dropped)
//   noheader=<bool>    false no header line: columns Column_1, Column_2, ...
//   copyattrs=<bool>   true  table rows copy the event's fields (not _raw)
//   maxnewresults=<n>  5000  most table rows made of one event
//   max_header_line=<n> 200  the header is at most on this line
//   max_header_lookahead=<n> 10  lines looked at for a header, from the
//                            start of the event or the end of a table
//   forceheader=<n>          line n (from 1) is the header of the first table
//   start_line=<n>     1     lines before n are not part of any table
//   last_line=<n>            lines after n are not part of any table
// `fields` and `filter` take the words after them, up to the next option or
// keyword. A plain value object; one thread.
#pragma once

#include <vector>

#include "util/Str.h"

class MultiKVOptions {
 public:
  Str conf;
  std::vector<Str> fields;
  std::vector<Str> filter;
  bool multitable = true;
  bool rmorig = true;
  bool passthru = false;
  bool noheader = false;
  bool copyattrs = true;
  unsigned long maxnewresults = 5000;
  unsigned long maxHeaderLine = 200;
  unsigned long maxHeaderLookahead = 10;
  unsigned long forceheader = 0;  // 0: none
  unsigned long startLine = 1;
  unsigned long lastLine = 0;  // 0: no bound

  // Takes one option name=value. Answers the error text, or "" when fine.
  Str setOption(const Str& name, const Str& value);
  // Checks the bounds of what was set; the error text or "".
  Str validate() const;
  // Is `word` a list keyword ("fields", "filter")?
  static bool isKeyword(const Str& word);

 private:
  std::vector<Str> _seen;  // options and keywords given, for repeats
};
