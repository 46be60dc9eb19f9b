// LiveTailStream: the live tail. Serves, as they are indexed, the events a
// search keeps, over one long HTTP reply.
//
//   GET|POST /services/streams/tail?search=<search>[&output_mode=sse|json]
//            [&max_count=<n>][&max_time=<seconds>][&earliest_time=<time>]
//
// The request carries its own credentials ("Authorization: Velmor <key>",
// an `authtoken` parameter, or any form HTTPAuthManager::authenticate
// accepts): stream handlers bypass the REST dispatcher. The search starts
// with `search`; after it only commands that work event by event may
// follow (isEventCommand). Its `index=` option names the index followed
// (none: the default index); the user's role filters apply as in any search.
// A refused request gets 400 (401 without credentials) with a JSON body
// {"messages":[{"type":"FATAL","text":"..."}]} before any event.
//
// The reply is chunked. output_mode "sse" (the default when Accept holds
// text/event-stream) writes each kept event as
// "event: result\ndata: <json>\n\n"; "json" (the default otherwise) as
// "<json>\n". <json> holds _time, index, host, source, sourcetype, _raw and
// the other fields of the row after the commands, all as strings. After 10 s
// without a write: ": keepalive\n\n" (sse) or "\n" (json). Events lost to a
// reader too slow for the indexer are reported in their place:
// "event: dropped\ndata: {"dropped":N,"message":"dropped N events"}\n\n"
// (sse) or that object as a line (json). The reply ends (closing chunk)
// after max_count events (0 or none: no limit), after max_time seconds
// (0 or none: no limit), or at stopAll() (the service's shutdown); it is
// cut when the client goes away. earliest_time (epoch seconds or relative
// such as "-5m") sends first the matching events already indexed since
// then, oldest first.
//
// DESIGN: handleStream() starts a worker thread per request and returns.
// The worker authenticates, compiles the search (Matcher), subscribes to
// the LiveTailHub, writes the headers and then loops: it takes the queued
// events (waiting at most a second, so that stops, max_time and keepalives
// are noticed), runs each through the commands as a one-row result set and
// writes what is kept. The indexer never waits for it: the hub's bounded
// queue drops what the worker cannot keep up with, and the worker reports
// the count. A write that fails (the client left) ends the worker.
// Finished workers are joined at the next request and by stopAll(), which
// also stops the running ones; the destructor calls it.
// Registered with HTTPServer::registerStreamHandler(kPath, ...).
#pragma once

#include <list>
#include <memory>
#include <vector>

#include "framework/http/MHTTPStreamHandler.h"
#include "framework/http/StreamWorkers.h"
#include "pipeline/indexer/LiveTailHub.h"
#include "util/Mutex.h"
#include "util/Str.h"

class EventRowWriter;
class HTTPAuthManager;
class SearchPipeline;
class SearchResultsInfo;

class LiveTailStream : public MHTTPStreamHandler {
 public:
  static const char* const kPath;  // "/services/streams/tail"
  static constexpr double kKeepaliveSeconds = 10;

  // Uses HTTPAuthManager::instance() and LiveTailHub::instance() when null.
  // Each tail queues at most `queueCapacity` events it has not yet taken.
  explicit LiveTailStream(HTTPAuthManager* auth = nullptr, LiveTailHub* hub = nullptr,
                          size_t queueCapacity = LiveTailHub::kDefaultCapacity);
  ~LiveTailStream() override;
  LiveTailStream(const LiveTailStream&) = delete;
  LiveTailStream& operator=(const LiveTailStream&) = delete;

  void handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) override;
  // Ends every running tail (with its closing chunk) and joins the workers.
  void stopAll();
  // Workers not yet joined.
  size_t workers() const;
  // Workers still serving their request.
  size_t running() const;

  // Whether a command may follow the first `search` of a live tail.
  static bool isEventCommand(const Str& name);

  // One tail's search, compiled once; one thread uses it.
  class Matcher {
   public:
    // Parses and checks `search` for `user`. Throws SearchProcessorException
    // with the text for the user (an unknown or refused command, a bad
    // option, an index the user may not read).
    Matcher(const Str& search, const Str& user);
    ~Matcher();
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;

    // The index followed.
    const Str& index() const { return _index; }
    // The text of the first `search`, as it is run over the events.
    const Str& filterText() const { return _filterText; }
    // Runs the event through the commands; true when a row is left, and
    // `json` then holds it as one JSON object (no newline).
    bool match(const LiveTailHub::Event& e, Str& json);

   private:
    std::unique_ptr<SearchPipeline> _pipeline;
    std::unique_ptr<SearchResultsInfo> _info;
    std::unique_ptr<EventRowWriter> _rows;
    Str _index;
    Str _filterText;
  };

  class Worker;

 private:
  HTTPAuthManager* _auth;
  LiveTailHub* _hub;
  size_t _queueCapacity;
  StreamWorkers<Worker> _workers;
};
