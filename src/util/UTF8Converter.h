// UTF8Converter: turns byte text in a named charset into UTF-8, one buffer at
// a time.
//
//   UTF8Converter conv;
//   if (!conv.setCharset("windows-1252")) ...unknown charset...
//   Str out;
//   conv.convert(buf, n, out);   // appends UTF-8 to out; call again per buffer
//
// Charset names are looked up by find_engine() in the generated alias table
// (src/util/generated_UTF8FindEngine.*) after normalisation: lower case, and
// every byte that is not a letter or digit dropped, so "ISO-8859-1",
// "iso_8859_1" and "ISO8859-1" are one name.
//
// Input may stop inside a character: the bytes of the unfinished character (at
// most 3) are kept and joined to the next call. Bytes that are not valid in
// the charset, or that map to nothing, are dropped; so are code points between
// 0xD800 and 0xDFFF and above 0x10FFFF. For UTF-16, UTF-32 and UCS-2 a byte
// order mark at the start of the stream is dropped, and one in the other byte
// order switches the order for the rest of the stream.
//
// A converter is owned by one thread at a time; the tables are shared
// read-only data.
#pragma once

#include <cstddef>

#include "util/Str.h"
#include "util/generated_UTF8FindEngine.h"

class UTF8Converter {
 public:
  // Per-stream state of the Unicode-form routines.
  struct State {
    bool started = false;  // the first unit has been seen (BOM check done)
    bool swapped = false;  // a reversed BOM flipped the byte order
  };
  // Converts complete characters of in[0..len), appending UTF-8 to out;
  // returns the bytes used. What is left is the start of one unfinished
  // character.
  typedef size_t (*Routine)(State& state, const UTF8Table* table, const unsigned char* in, size_t len, Str& out);

  // What a charset name resolves to.
  struct Spec {
    const char* name = nullptr;  // normalised name as in the alias table
    UTF8Engine engine = UTF8_ENGINE_UTF8;
    Routine routine = nullptr;
    const UTF8Table* table = nullptr;
  };

  // Looks `name` up in the alias table; false if it is unknown.
  static bool find_engine(Spec& spec, const char* name);
  // Lower case, letters and digits only.
  static Str normalizeName(const char* name);
  // Number of rows in the alias table.
  static size_t aliasCount();

  UTF8Converter() = default;

  // Selects the charset and resets the stream; false (and no charset) if the
  // name is unknown.
  bool setCharset(const char* name);
  bool hasCharset() const { return _spec.routine != nullptr; }
  const Spec& spec() const { return _spec; }

  // Forgets pending bytes and byte-order state: the next call starts a new
  // stream.
  void reset();

  // Appends the UTF-8 form of in[0..len) to out. Returns false only when no
  // charset is set.
  bool convert(const char* in, size_t len, Str& out);
  // Bytes of an unfinished character kept from the last call.
  const Str& pending() const { return _pending; }

 private:
  Spec _spec;
  State _state;
  Str _pending;
};
