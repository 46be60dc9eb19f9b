// StreamedSearch: serves a search to a peer (or any client) as CSV rows
// while they are found, for the dispatch of searches over several servers.
//
//   GET|POST /services/streams/search?pipeline=<search>&start_time=<epoch>
//            &end_time=<epoch>&output=csv&is_dispatch=1&queryid=<id>
//            [&max_count=<n>]
//
// The request carries its own credentials (a session key as "authtoken" or
// any form HTTPAuthManager::authenticate accepts): stream handlers bypass
// the REST dispatcher. The pipeline is parsed with internal commands
// allowed (the map halves are) and run over the local indexes chunk by
// chunk (PipelineSplit): each chunk, after the map half, is written at once
// as a chunk of a "Transfer-Encoding: chunked" reply. The body is CSV with
// internal fields: a header line, then rows; when a chunk brings fields the
// header lacks, a blank line ends the block and a new header follows. A
// search that returns events stops after `max_count` rows (default 10000).
// A failure before the first row is a 400/401 reply with the text; a failure
// later cuts the reply short (no closing chunk), so the reader sees it.
//
// DESIGN: handleStream() only starts a worker thread per request; the
// worker authenticates, runs the search and releases the connection. A
// client that goes away fails the next write, which cancels the search
// (SearchCancel). Finished workers are joined at the next request and by
// stopAll(), which also cancels the running ones; the destructor calls it.
// Registered with HTTPServer::registerStreamHandler(kPath, ...).
#pragma once

#include <list>
#include <memory>

#include "framework/http/MHTTPStreamHandler.h"
#include "framework/http/StreamWorkers.h"
#include "util/Mutex.h"
#include "util/Str.h"

class HTTPAuthManager;

class StreamedSearch : public MHTTPStreamHandler {
 public:
  static const char* const kPath;  // "/services/streams/search"

  // Uses HTTPAuthManager::instance() when `auth` is null.
  explicit StreamedSearch(HTTPAuthManager* auth = nullptr);
  ~StreamedSearch() override;
  StreamedSearch(const StreamedSearch&) = delete;
  StreamedSearch& operator=(const StreamedSearch&) = delete;

  void handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) override;
  // Cancels every running search and joins the workers.
  void stopAll();
  // Workers not yet joined.
  size_t workers() const;
  // Workers still serving their request.
  size_t running() const;

  class Worker;

 private:
  HTTPAuthManager* _auth;
  StreamWorkers<Worker> _workers;
};
