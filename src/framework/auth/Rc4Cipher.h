// Rc4Cipher: the RC4 stream cipher the user file uses to keep passwords
// reversibly. The library's cipher is used when it can be had (under
// OpenSSL 3 it lives in the "legacy" provider, loaded into a private library
// context so that the rest of the process keeps the default providers);
// otherwise a small implementation of our own gives the same bytes.
//
// Threads: every member may be called from any thread at once; the library
// context is made once, on first use.
#pragma once

#include "util/Str.h"

class Rc4Cipher {
 public:
  // `data` enciphered (or deciphered: RC4 is its own inverse) under `key`.
  // REQUIRES: 1 <= key.size() <= 256.
  static Str apply(const Str& key, const Str& data);
  // Our own implementation.
  static Str applyOwn(const Str& key, const Str& data);
  // The library's; false when the library has no RC4 to give.
  static bool applyLibrary(const Str& key, const Str& data, Str& out);
  // Whether the library's RC4 could be loaded.
  static bool libraryAvailable();
};
