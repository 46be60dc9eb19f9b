// xml::init: process-wide set-up of libxml2, libxslt and libexslt.
//
// The first init object (or the first call of init::ensure(), which every
// parser, document and stylesheet makes) initialises the libraries once, in a
// safe configuration: no entity substitution, no external DTD loading, no
// network access, XSLT with file writes and directory creation forbidden, and
// the EXSLT extensions registered. Library diagnostics are routed to a
// per-thread collector (see capture_errors) instead of standard error; a
// diagnostic raised while no collector is active on its thread is dropped
// (every parser, save and transform of this layer has one active).
//
// A `main` may hold one init object for the life of the process: when the
// last init object is destroyed the libraries' global state is cleaned up, so
// no XML object may outlive it. Without an init object nothing is cleaned up
// (the state stays reachable until exit).
//
// Threads: construct the first init (or call ensure) before threads use XML;
// after that every function here is thread safe.
#pragma once

#include <string>

namespace xml {

class init {
 public:
  init();
  ~init();
  init(const init&) = delete;
  init& operator=(const init&) = delete;

  // Initialises the libraries if nothing has yet; cheap afterwards.
  static void ensure();

  // While a capture_errors object lives on a thread, the diagnostics that the
  // libraries report on that thread are appended to its text, one per line.
  class capture_errors {
   public:
    capture_errors();
    ~capture_errors();
    capture_errors(const capture_errors&) = delete;
    capture_errors& operator=(const capture_errors&) = delete;
    // Everything gathered, one diagnostic per line, without the last newline.
    std::string message() const;
    bool empty() const { return _text.empty(); }
    void append_line(const char* msg);  // a complete diagnostic
    void append_raw(const char* msg);   // a fragment of one

   private:
    std::string _text;
    capture_errors* _outer;
  };
};

}  // namespace xml
