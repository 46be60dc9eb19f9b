// HTTPStream: a pull reader of one HTTP reply, for replies too long to hold
// at once (results streamed by a peer). The constructor connects and sends
// a GET (or a POST of `postData` when it is not empty); readHeaders() gives
// the status and headers; read() and readLine() then give the body as it
// comes, chunked encoding removed; unread() puts bytes back in front.
//
// Every failure (connecting, a time-out, a malformed reply, the peer
// closing inside a chunk or before Content-Length bytes) throws
// HTTPStreamException. Ownership: owns its connection. One thread at a time.
#pragma once

#include <map>

#include "framework/http/HTTPClient.h"
#include "util/Str.h"

class HTTPStream {
 public:
  HTTPStream(const Str& url, const HTTPClient::Timeouts& t, const Str& postData);
  // For tests and callers that set up the client first (TLS options).
  HTTPStream(HTTPClient& configured, const Str& url, const HTTPClient::Timeouts& t, const Str& postData);
  ~HTTPStream() = default;
  HTTPStream(const HTTPStream&) = delete;
  HTTPStream& operator=(const HTTPStream&) = delete;

  // The status line's parts and the headers (names lower-cased). Called
  // first; read() calls it itself when it was not.
  void readHeaders(Str& version, int& status, Str& reason, std::map<Str, Str>& headers);
  // The next piece of the body; false (and `out` empty) at its end.
  bool read(Str& out);
  // The body up to `sep` (not included; the separator is consumed). At the
  // end a last piece without `sep` is given; then false.
  bool readLine(Str& out, const Str& sep = "\n");
  // Puts bytes back in front of what read() gives next.
  void unread(const Str& s);

 private:
  void start(const Str& url, const HTTPClient::Timeouts& t, const Str& postData);
  // Reads more raw bytes; false at the end of the stream.
  bool fill();
  // Makes sure the raw buffer holds a whole line; its end index.
  size_t needLine();
  void ensureHeaders();
  // Decodes the next piece of the body from the raw bytes; false at the end.
  bool nextPiece(Str& out);

  HTTPClient _own;
  HTTPClient& _client;
  Str _raw;      // bytes read and not yet decoded
  Str _pending;  // decoded bytes given back or left over
  bool _headersRead = false;
  bool _eof = false;   // the peer closed
  bool _done = false;  // the body ended
  bool _chunked = false;
  long long _remaining = -1;  // Content-Length left; -1: to the close
  unsigned long long _chunkLeft = 0;
  bool _needChunkEnd = false;  // the line end after a chunk's data
  HTTPRequestReply _head;
};
