#include "framework/http/HTTPStream.h"

#include <cctype>

#include "util/Exceptions.h"

namespace {
constexpr size_t kMaxHeader = 1 << 20;
}

HTTPStream::HTTPStream(const Str& url, const HTTPClient::Timeouts& t, const Str& postData) : _client(_own) {
  start(url, t, postData);
}

HTTPStream::HTTPStream(HTTPClient& configured, const Str& url, const HTTPClient::Timeouts& t,
                       const Str& postData)
    : _client(configured) {
  start(url, t, postData);
}

void HTTPStream::start(const Str& url, const HTTPClient::Timeouts& t, const Str& postData) {
  Str err;
  if (!_client.connect(url, t, err)) throw HTTPStreamException(err);
  HTTPRequestReply req;
  const bool post = !postData.empty();
  req.putRequest(post ? "POST" : "GET", _client.url().pathAndQuery, _client.url().hostHeader());
  if (post) req.putHTTPBody(postData, "application/x-www-form-urlencoded");
  Str bytes = req.getFullRequestReply();
  if (!_client.sendAll(bytes.data(), bytes.size(), err)) throw HTTPStreamException(err);
}

bool HTTPStream::fill() {
  if (_eof) return false;
  char buf[16384];
  Str err;
  long n = _client.readSome(buf, sizeof buf, err);
  if (n < 0 && errno == ETIMEDOUT) throw HTTPStreamException(err);
  if (n <= 0) {
    _eof = true;
    return false;
  }
  _raw.append(buf, static_cast<size_t>(n));
  return true;
}

size_t HTTPStream::needLine() {
  for (;;) {
    size_t nl = _raw.find('\n');
    if (nl != Str::npos) return nl;
    if (_raw.size() > kMaxHeader) throw HTTPStreamException("line too long in the reply");
    if (!fill()) throw HTTPStreamException("connection closed inside the reply");
  }
}

void HTTPStream::ensureHeaders() {
  if (_headersRead) return;
  size_t end = Str::npos;
  for (;;) {
    size_t crlf = _raw.find("\r\n\r\n");
    size_t lf = _raw.find("\n\n");
    if (crlf != Str::npos && (lf == Str::npos || crlf + 2 <= lf)) end = crlf + 4;
    else if (lf != Str::npos) end = lf + 2;
    if (end != Str::npos) break;
    if (_raw.size() > kMaxHeader) throw HTTPStreamException("reply header too long");
    if (!fill()) throw HTTPStreamException("connection closed inside the reply header");
  }
  Str err;
  if (!_head.parseHeaderBlock(Str(_raw.substr(0, end)), err) || _head.status() == 0)
    throw HTTPStreamException("malformed reply header: " + (err.empty() ? Str("no status") : err));
  _raw.erase(0, end);
  _headersRead = true;
  const int st = _head.status();
  if (st == 204 || st == 304 || (st >= 100 && st < 200)) {
    _done = true;
    return;
  }
  const Str* te = _head.header("transfer-encoding");
  Str teLower = te ? *te : Str();
  for (char& c : teLower) c = char(std::tolower(static_cast<unsigned char>(c)));
  if (teLower.find("chunked") != Str::npos) {
    _chunked = true;
  } else if (const Str* cl = _head.header("content-length")) {
    unsigned long n = 0;
    if (!cl->tryToUnsignedLong(n)) throw HTTPStreamException("malformed Content-Length in the reply");
    _remaining = static_cast<long long>(n);
    if (n == 0) _done = true;
  }
}

void HTTPStream::readHeaders(Str& version, int& status, Str& reason, std::map<Str, Str>& headers) {
  ensureHeaders();
  version = _head.version();
  status = _head.status();
  reason = _head.reason();
  headers = _head.headers();
}

bool HTTPStream::nextPiece(Str& out) {
  out.clear();
  if (_done) return false;
  if (!_chunked) {
    if (_raw.empty() && !fill()) {
      if (_remaining > 0) throw HTTPStreamException("connection closed before the whole reply came");
      _done = true;
      return false;
    }
    size_t take = _raw.size();
    if (_remaining >= 0 && static_cast<unsigned long long>(take) > static_cast<unsigned long long>(_remaining))
      take = static_cast<size_t>(_remaining);
    out = Str(_raw.substr(0, take));
    _raw.erase(0, take);
    if (_remaining >= 0) {
      _remaining -= static_cast<long long>(take);
      if (_remaining == 0) _done = true;
    }
    return !out.empty() || !_done;
  }
  for (;;) {
    if (_needChunkEnd) {
      size_t nl = needLine();
      if (!(nl == 0 || (nl == 1 && _raw[0] == '\r'))) throw HTTPStreamException("missing line end after a chunk");
      _raw.erase(0, nl + 1);
      _needChunkEnd = false;
    }
    if (_chunkLeft == 0) {
      size_t nl = needLine();
      Str line(_raw.substr(0, nl));
      _raw.erase(0, nl + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      size_t semi = line.find(';');
      Str hex = Str(line.substr(0, semi)).trim();
      if (hex.empty() || hex.size() > 15) throw HTTPStreamException("malformed chunk size in the reply");
      unsigned long long n = 0;
      for (char c : hex) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) throw HTTPStreamException("malformed chunk size in the reply");
        n = n * 16 + static_cast<unsigned long long>(std::isdigit(static_cast<unsigned char>(c))
                                                         ? c - '0'
                                                         : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
      }
      if (n == 0) {
        for (;;) {  // trailer lines
          size_t t = needLine();
          bool empty = t == 0 || (t == 1 && _raw[0] == '\r');
          _raw.erase(0, t + 1);
          if (empty) break;
        }
        _done = true;
        return false;
      }
      _chunkLeft = n;
    }
    if (_raw.empty() && !fill()) throw HTTPStreamException("connection closed inside a chunk");
    size_t take = _raw.size();
    if (static_cast<unsigned long long>(take) > _chunkLeft) take = static_cast<size_t>(_chunkLeft);
    out = Str(_raw.substr(0, take));
    _raw.erase(0, take);
    _chunkLeft -= take;
    if (_chunkLeft == 0) _needChunkEnd = true;
    if (!out.empty()) return true;
  }
}

bool HTTPStream::read(Str& out) {
  ensureHeaders();
  if (!_pending.empty()) {
    out.swap(_pending);
    _pending.clear();
    return true;
  }
  return nextPiece(out);
}

bool HTTPStream::readLine(Str& out, const Str& sep) {
  ensureHeaders();
  Str piece;
  size_t searchFrom = 0;
  for (;;) {
    size_t at = sep.empty() ? Str::npos : _pending.find(sep, searchFrom);
    if (at != Str::npos) {
      out = Str(_pending.substr(0, at));
      _pending.erase(0, at + sep.size());
      return true;
    }
    searchFrom = _pending.size() >= sep.size() ? _pending.size() - sep.size() + 1 : 0;
    if (!nextPiece(piece)) break;
    _pending += piece;
  }
  if (_pending.empty()) {
    out.clear();
    return false;
  }
  out.swap(_pending);
  _pending.clear();
  return true;
}

void HTTPStream::unread(const Str& s) { _pending.insert(0, s); }
