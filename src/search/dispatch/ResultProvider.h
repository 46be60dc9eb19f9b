// ResultProvider: the rows of one peer for a dispatched search.
//
// open() logs in to the peer (POST <server>/services/auth/login with the
// configured account; with no account the caller's session key is passed
// on) and starts the search as a streamed export:
//   <server>/services/streams/search?pipeline=..&start_time=..&end_time=..
//     &output=csv&is_dispatch=1&queryid=..
// read() then gives its CSV rows as they come, a few at a time.
//
// The stream is CSV with internal fields; a blank line outside a quoted
// value ends one block and a new header line follows (a peer that meets new
// fields in a later chunk starts a new block).
//
// Failures never throw: open() or read() answer false and warning() holds
// the text to show the user, ending with ". Results from this peer were not
// returned.". One thread at a time.
#pragma once

#include <memory>
#include <vector>

#include "framework/http/HTTPClient.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Str.h"

class HTTPStream;

class ResultProvider {
 public:
  struct Request {
    Str search;      // the streaming part to run on the peer
    double earliest = 0, latest = 0;  // epoch seconds; 0: open
    Str queryId;
    Str username, password;  // empty username: use sessionKey
    Str sessionKey;
    HTTPClient::Timeouts timeouts;
    bool verifyPeer = true;  // https peers: check the certificate
    Str caFile;              // against this authority (empty: the system's)
    std::vector<Str> searchFilters;  // the role filters of the user here, sent along
  };
  static const char* const kStreamPath;  // "/services/streams/search"

  ResultProvider(const Str& server, const Request& request);
  ~ResultProvider();
  ResultProvider(const ResultProvider&) = delete;
  ResultProvider& operator=(const ResultProvider&) = delete;

  const Str& server() const { return _server; }
  // Logs in and starts the search; false with warning() set on failure.
  bool open();
  // Appends up to `max` rows to `out`. False once the peer has no more rows
  // (after it gave its last ones) or failed (warning() set).
  bool read(SearchResults& out, size_t max);
  bool failed() const { return !_warning.empty(); }
  const Str& warning() const { return _warning; }
  // The URL of the streamed search (without credentials).
  Str searchUrl() const;
  // "&srch_filter=..." for each of the request's search filters.
  Str filterParams() const;

 private:
  bool login(Str& key);
  void fail(const Str& text);

  Str _server;
  Request _req;
  void configure(HTTPClient& c) const;

  HTTPClient _client;  // the stream's connection; outlives _stream
  std::unique_ptr<HTTPStream> _stream;
  SearchResults _buf;
  std::vector<sr_index_t> _inds;
  bool _needHeader = true;
  bool _inQuote = false;  // inside a quoted CSV value across lines
  bool _blockEnd = false;
  bool _done = false;
  Str _warning;
  friend class StreamLineReader;
};
