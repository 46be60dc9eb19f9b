// TailStanza: the settings of one `[tail:<absolute path>]` stanza of the
// `inputs` property files, checked once, and the search for the files the
// stanza names.
//
// The path of a stanza is one of:
//   - a file: followed when it exists;
//   - a directory: every regular file below it (recursively unless
//     `recursive = false`), new ones included as they appear;
//   - a wildcard: `*` matches within one path segment, `...` across
//     segments ("/var/log/.../*.log"); the directories up to the first
//     wildcard are walked and each regular file's whole path is matched.
// `whitelist` and `blacklist` are regular expressions searched in the full
// path of each file found: a file must match the whitelist, when one is set,
// and must not match the blacklist.
//
// Ownership: a value; the compiled expressions are shared between copies.
// Threads: parse() anywhere; a parsed stanza may be read from any number of
// threads, and findFiles() only touches the file system.
#pragma once

#include <sys/types.h>

#include <memory>
#include <vector>

#include "util/RE.h"
#include "util/Str.h"

class PropertiesMap;

class TailStanza {
 public:
  // Reads stanza `name` ("tail:/var/log") from its merged keys. False, with
  // `error` saying what is wrong (without the stanza's name), for a relative
  // or empty path, a regular expression that does not compile, or a value
  // that does not parse.
  static bool parse(const Str& name, const PropertiesMap& keys, TailStanza& out, Str& error);

  // "<n>", "<n>s", "<n>m", "<n>h", "<n>d" (n >= 0) to seconds; false otherwise.
  static bool parseDuration(const Str& text, long& seconds);

  // Appends every regular file the stanza names now, whitelist and
  // blacklist applied. Directories that cannot be read are passed over.
  void findFiles(std::vector<Str>& out) const;
  // Whether a file found at `path` belongs to this stanza (pattern,
  // whitelist and blacklist).
  bool accepts(const Str& path) const;
  // How closely the stanza names the file at `path`, for choosing among
  // stanzas that overlap: 0 when it does not name it at all; otherwise the
  // stanza naming the file itself ranks above every directory or wildcard,
  // and of those the one with the longer fixed directory ranks higher
  // ("/logs/web" over "/logs"). Looks at the text of the paths only.
  size_t specificity(const Str& path) const;

  const Str& name() const { return _name; }
  const Str& path() const { return _path; }
  bool isWildcard() const { return _pattern != nullptr; }

  // Settings; empty texts mean "not set".
  Str index;
  Str sourcetype;
  Str host;
  Str crcSalt;
  bool disabled = false;
  bool followTail = false;
  bool recursive = true;
  long ignoreOlderThan = 0;     // seconds; 0: no limit
  double scanInterval = 1.0;    // seconds between looks for new files

 private:
  void walk(const Str& dir, int depthLeft, std::vector<Str>& out) const;

  Str _name;
  Str _path;                          // the path after "tail:", trailing "/" removed
  Str _root;                          // wildcard: the directory walked
  int _maxDepth = 64;                 // wildcard: levels below _root to look at
  std::shared_ptr<const RE> _pattern;    // wildcard as a regular expression
  std::shared_ptr<const RE> _whitelist;
  std::shared_ptr<const RE> _blacklist;
};
