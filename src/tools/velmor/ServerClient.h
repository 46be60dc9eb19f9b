// ServerClient: the REST calls `velmor --server URL` makes of velmord:
//   login        POST /services/auth/login (username, password) -> the
//                session key, sent as "Authorization: Velmor <key>" after
//   postJob      POST /services/search/jobs (search, start_time, end_time
//                as epoch seconds, max_count) -> the job's sid
//   jobStatus    GET  /services/search/jobs/<sid> -> done, count, error and
//                messages from the lines "key=value" of the status entry
//   fetchRows    GET  /services/search/jobs/<sid>/results?output_mode=json
//                &offset=&count= -> rows (204: none)
//   serverInfo   GET  /services/server/info -> serverName, user, roles...
//   openTail     POST /services/streams/tail (search, output_mode=json,
//                earliest_time, max_count, authtoken) -> a stream of one
//                JSON object per line, "\n" alone as keep-alive
// The URL may be given as "http[s]://host:port", with or without a trailing
// "/" or "/services". Every failure comes back as false with a text that
// says what was asked and why it failed (the service's own message when
// its reply carries one).
//
// Owns nothing between calls but the session key. One thread.
#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "framework/http/HTTPClient.h"
#include "util/Str.h"

class HTTPStream;
class SearchResults;

class ServerClient {
 public:
  struct JobState {
    bool done = false;
    long count = 0;
    Str error;
    std::vector<Str> messages;  // "<TYPE>: <text>"
  };

  ServerClient(const Str& url, bool verifyPeer);

  const Str& base() const { return _base; }
  bool login(const Str& user, const Str& password, Str& err);
  bool postJob(const Str& search, const std::vector<std::pair<Str, Str>>& params, Str& sid, Str& err);
  bool jobStatus(const Str& sid, JobState& st, Str& err);
  // Appends up to `count` rows from `offset`; `got` is how many came.
  bool fetchRows(const Str& sid, size_t offset, size_t count, SearchResults& out, size_t& got, Str& err);
  bool serverInfo(std::map<Str, Str>& fields, Str& err);
  // The stream after a 200 reply; null with `err` otherwise. The stream
  // reads through this object's connection: it must not outlive it.
  std::unique_ptr<HTTPStream> openTail(const std::vector<std::pair<Str, Str>>& params, int readMs, Str& err);

  // --- pieces, public for tests ---
  // "http://h:1/services/" -> "http://h:1"; false for no http(s) URL.
  static bool normalizeBase(const Str& url, Str& base, Str& err);
  // The text of the first <msg ...>text</msg> of a reply body, XML
  // entities undone; empty when there is none.
  static Str messageOf(const Str& body);
  // Reads the "key=value" lines of a job's status entry.
  static void parseStatus(const Str& entry, JobState& st);
  // The text between <tag> and </tag>, entities undone; false if absent.
  static bool element(const Str& body, const Str& tag, Str& out);
  static Str xmlUnescape(const Str& text);
  static Str formBody(const std::vector<std::pair<Str, Str>>& params);

 private:
  bool call(const Str& method, const Str& path, const Str& body, HTTPRequestReply& reply, Str& err);

  Str _base;
  bool _verify;
  Str _key;
  HTTPClient::Timeouts _timeouts;
  HTTPClient _tailClient;  // the connection of the stream openTail gives
};
