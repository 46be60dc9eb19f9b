// StringMgr: the catalogue of user-facing texts.
//
// Built on first use from every stanza of the property file "strings", merged
// across bundles (a higher bundle's text wins): the key K of stanza S is found
// as "S_K". A key names its printf arguments behind a double underscore, as in
// "FILE_CLASSIFIER_UNABLE_TO_CONVERT_TO_UTF8__S".
//
// A key that the catalogue lacks prints
//   "String not found in searchstrings.conf -- <key>\n"
// on standard output and gets a made-up text: NAME, " Arguments: ", then each
// "_"-separated token of ARGS replaced by its conversion (S " '%s'", C " '%c'",
// D " '%d'", F " '%f'", LD " '%ld'", LLD " '%lld'", LLU " '%llu'",
// LLX " '%llx'", LU " '%lu'", LX " '%lx'", M " '%m'", P " '%p'", U " '%u'",
// UL " '%ul'"; any other token is kept as " " plus the token). The made-up
// text is stored, so the message shows once per key. A key without "__" is a
// programming fault and aborts the process.
//
// Threads: any thread; the catalogue is guarded by a mutex, and the returned
// reference stays valid until exit.
#pragma once

#include <map>

#include "util/Mutex.h"
#include "util/Str.h"

class PropertyPages;

class StringMgr {
 public:
  // The text of `key` from the process-wide catalogue.
  static const Str& str(const char* key);

  // A catalogue of its own, read from `pages` (tests, tools).
  explicit StringMgr(PropertyPages& pages);
  const Str& lookup(const char* key);

  // The text made for a key the catalogue lacks. REQUIRES: key has "__".
  static Str defaultText(const char* key);

 private:
  static StringMgr& instance();

  std::map<Str, Str, std::less<>> _strings;
  Mutex _mutex;
};
