// HTTPRequestReply: one HTTP message as a client builds or reads it. The
// building side makes a request (putRequest, putHeader, putHTTPBody, then
// getFullRequestReply for the bytes); the parsing side reads a reply (or
// a request) from the bytes received so far with parseFull, which decodes
// a chunked body and tells whether more bytes are needed.
//
// A plain value; one thread at a time.
#pragma once

#include <map>
#include <vector>
#include <utility>

#include "util/Str.h"

class HTTPRequestReply {
 public:
  // --- building ---
  // The request line and the Host header; the path includes any query.
  void putRequest(const Str& method, const Str& pathAndQuery, const Str& host);
  void putHeader(const Str& name, const Str& value);
  // The body, its Content-Length and (when given) its Content-Type.
  void putHTTPBody(const Str& body, const Str& contentType);
  // The whole message: start line, headers, "Connection: close", a blank
  // line and the body.
  Str getFullRequestReply() const;

  // --- parsing ---
  enum Parse { kIncomplete = 0, kComplete = 1, kMalformed = -1 };
  // Parses `data`, everything received so far. `eof` says the peer has
  // closed, which ends a body that has neither a length nor chunks.
  // kMalformed sets `err`.
  Parse parseFull(const Str& data, bool eof, Str& err);
  // After kIncomplete: the total bytes the message needs when its length is
  // known (a reader need not parse again before), else 0.
  size_t bytesNeeded() const { return _need; }

  // After parsing a reply: the status line's parts (a request's start line
  // goes to version/status/reason as its three words, status 0).
  const Str& version() const { return _version; }
  int status() const { return _status; }
  const Str& reason() const { return _reason; }
  const Str& startLine() const { return _startLine; }
  // Header lookup without regard to case; null when absent.
  const Str* header(const Str& name) const;
  const std::map<Str, Str>& headers() const { return _headers; }  // names lower-cased
  const Str& body() const { return _body; }

  // Parses only a header block (start line and header lines, no blank
  // line needed). False on a malformed line.
  bool parseHeaderBlock(const Str& block, Str& err);

  // Decodes a chunked body from `data` at `pos`: kComplete with `out` and
  // `pos` past the trailer, kIncomplete, or kMalformed.
  static Parse decodeChunked(const Str& data, size_t& pos, Str& out, Str& err);

 private:
  // building
  Str _method, _target;
  std::vector<std::pair<Str, Str>> _outHeaders;
  Str _outBody;
  // parsing
  Str _startLine, _version, _reason, _body;
  int _status = 0;
  size_t _need = 0;
  std::map<Str, Str> _headers;
};
