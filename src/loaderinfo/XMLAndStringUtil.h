// XMLAndStringUtil: small string and XML helpers of the configuration layer.
//
//  - toRegex turns the file pattern of a property stanza
//    ("source::/var/log/.../*.log") into a regular expression.
//  - fetchValue reads a processor setting: the text of a child element.
//  - substituteTokens / substituteNode replace "$$NAME]]" tokens in text and
//    in XML trees; loadSubstitutions reads a substitution file.
//  - set_env_cache / get_env_cache keep the environment that child
//    processes are started with.
//
// All functions are stateless and may be called from any thread, except the
// env cache, which is one process-wide object under a mutex (still callable
// from any thread).
#pragma once

#include <map>
#include <vector>

#include "util/Str.h"
#include "util/xml/XmlNode.h"

namespace XMLAndStringUtil {

// Rewrites a file pattern in place into a regular expression:
//   "*"   -> "[^/]*"   (any run of characters within one path segment)
//   "..." -> ".*"      (any run of characters, across segments)
//   "."   -> "\."      (a literal dot; the dots made by "..." stay)
// Returns true when the text changed.
bool toRegex(Str& pattern);

// --- settings from XML ---------------------------------------------------------
// The text of the first element child of `node` named `name`. The Str form
// gives the text as it is; the others trim blanks first and parse it: bool
// takes "true"/"yes"/"1" and "false"/"no"/"0" in any case, long and int take a
// base-10 number that fits. False, with `out` unchanged, when the child is
// absent or its text does not parse.
bool fetchValue(const xml::node& node, const char* name, Str& out);
bool fetchValue(const xml::node& node, const char* name, bool& out);
bool fetchValue(const xml::node& node, const char* name, long& out);
bool fetchValue(const xml::node& node, const char* name, int& out);
// The same, with `out` set to `def` whenever the three-argument form fails.
bool fetchValue(const xml::node& node, const char* name, Str& out, const Str& def);
bool fetchValue(const xml::node& node, const char* name, bool& out, bool def);
bool fetchValue(const xml::node& node, const char* name, long& out, long def);
bool fetchValue(const xml::node& node, const char* name, int& out, int def);

// --- "$$NAME]]" substitution ----------------------------------------------------
using TokenMap = std::map<Str, Str>;
// Longest token name accepted between "$$" and "]]".
constexpr size_t kMaxTokenName = 200;

// Replaces every "$$NAME]]" whose NAME (1 to kMaxTokenName bytes, no "]") is
// in `tokens` by its value; unknown tokens stay as written. Replacement text
// is not scanned again. True if anything changed.
bool substituteTokens(Str& text, const TokenMap& tokens);
// substituteTokens over every attribute value and every text and CDATA node
// of the tree under `node`, `node` included.
void substituteNode(xml::node& node, const TokenMap& tokens);
// Reads a substitution file, whose root element has children
// <NAME>value</NAME>, into `tokens` (an existing entry is kept: call the
// nearest file first). 0 on success, 1 when the file cannot be opened, -1
// when it does not parse.
int loadSubstitutions(const Str& path, TokenMap& tokens);

// --- environment of child processes ---------------------------------------------
// Takes a snapshot of the process environment as the environment of future
// child processes (again on every call).
void set_env_cache();
// Sets (or replaces) one variable in that environment, leaving the process's
// own environment alone; takes the snapshot first if none was taken.
void set_env_cache(const Str& name, const Str& value);
// The cached environment as "NAME=value" strings, in snapshot order with new
// names at the end; a snapshot is taken first if none was.
std::vector<Str> get_env_cache();

}  // namespace XMLAndStringUtil
