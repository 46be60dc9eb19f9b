#include "search/dispatch/ResultProvider.h"

#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPRequestReply.h"
#include "framework/http/HTTPStream.h"
#include "search/LineReader.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("ResultProvider");

const char* const ResultProvider::kStreamPath = "/services/streams/search";

namespace {
const char* const kNotReturned = ". Results from this peer were not returned.";

Str timeParam(double t) { return t > 0 ? Str::fromFormat("%.6f", t) : Str(); }
}  // namespace

// Lines of the peer's body for the CSV reader; a blank line outside a
// quoted value ends the block (appendLine answers false then).
class StreamLineReader : public LineReader {
 public:
  explicit StreamLineReader(ResultProvider& p) : _p(p) {}
  bool appendLine(Str& buf) override {
    if (_p._blockEnd || _p._done) return false;
    Str line;
    if (!_p._stream->readLine(line, "\n")) {
      _p._done = true;
      return false;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() && !_p._inQuote) {
      _p._blockEnd = true;
      return false;
    }
    for (char c : line)
      if (c == '"') _p._inQuote = !_p._inQuote;
    buf += line;
    buf += '\n';
    return true;
  }
  void close() override {}
  bool atEof() const override { return _p._done || _p._blockEnd; }
  bool valid() const override { return true; }

 private:
  ResultProvider& _p;
};

ResultProvider::ResultProvider(const Str& server, const Request& request) : _server(server), _req(request) {
  while (!_server.empty() && _server.back() == '/') _server.pop_back();
}

ResultProvider::~ResultProvider() = default;

void ResultProvider::fail(const Str& text) {
  _warning = text + kNotReturned;
  _done = true;
  _stream.reset();
  _client.disconnect();
  gLogger.warn("%s", _warning.c_str());
}

Str ResultProvider::searchUrl() const {
  return _server + kStreamPath + "?pipeline=" + HTTPRequest::urlEncode(_req.search) +
         "&start_time=" + timeParam(_req.earliest) + "&end_time=" + timeParam(_req.latest) +
         "&output=csv&is_dispatch=1&queryid=" + HTTPRequest::urlEncode(_req.queryId) + filterParams();
}

Str ResultProvider::filterParams() const {
  Str out;
  for (const Str& f : _req.searchFilters) out += "&srch_filter=" + HTTPRequest::urlEncode(f);
  return out;
}

void ResultProvider::configure(HTTPClient& c) const {
  c.setVerifyPeer(_req.verifyPeer);
  if (!_req.caFile.empty()) c.setCAFile(_req.caFile);
}

bool ResultProvider::login(Str& key) {
  Str url = _server + "/services/auth/login";
  gLogger.debug("Making login call using uri: %s", url.c_str());
  HTTPClient client;
  configure(client);
  HTTPRequestReply reply;
  Str err;
  Str body = "username=" + HTTPRequest::urlEncode(_req.username) + "&password=" + HTTPRequest::urlEncode(_req.password);
  if (!client.executeHTTPPost(url, body, _req.timeouts, reply, err)) {
    fail("Failed to contact peer for login at " + url + " because of " + err);
    return false;
  }
  const Str& b = reply.body();
  size_t s = b.find("<sessionKey>"), e = b.find("</sessionKey>");
  if (reply.status() != 200 || s == Str::npos || e == Str::npos || e < s) {
    fail(Str::fromFormat("Failed to connect with url = %s because of %s status code = %d", url.c_str(),
                         reply.reason().empty() ? "a refused login" : reply.reason().c_str(), reply.status()));
    return false;
  }
  s += 12;
  key = b.substr(s, e - s);
  return true;
}

bool ResultProvider::open() {
  if (_stream || _done) return !failed();
  Str key = _req.sessionKey;
  if (!_req.username.empty() && !login(key)) return false;
  Str url = searchUrl();
  Str post = "authtoken=" + HTTPRequest::urlEncode(key);
  gLogger.debug("Will send postdata = authtoken=... to %s", url.c_str());
  try {
    configure(_client);
    _stream = std::make_unique<HTTPStream>(_client, url, _req.timeouts, post);
    Str version, reason;
    int status = 0;
    std::map<Str, Str> headers;
    _stream->readHeaders(version, status, reason, headers);
    if (status != 200) {
      // The reason of a refusal is in the body of the reply.
      Str body, piece;
      while (body.size() < 4096 && _stream->read(piece)) body += piece;
      gLogger.debug("peer %s answered %d: %s", _server.c_str(), status, body.c_str());
      fail(Str::fromFormat("Failed to connect with url = %s because of %s status code = %d", url.c_str(),
                           reason.c_str(), status));
      return false;
    }
  } catch (const HTTPStreamException& e) {
    fail("Failed to connect to " + _server + " because of " + e.what());
    return false;
  }
  return true;
}

bool ResultProvider::read(SearchResults& out, size_t max) {
  if (!_stream && !_done && !open()) return false;
  if (_done) return false;
  StreamLineReader reader(*this);
  size_t got = 0;
  try {
    while (got < max && !_done) {
      if (_needHeader) {
        _inQuote = false;
        if (!_buf.readHeader(reader, _inds, true, true)) {
          if (_blockEnd) {
            _blockEnd = false;
            continue;
          }
          _done = true;
          break;
        }
        _needHeader = false;
      }
      size_t before = _buf.size();
      if (!_buf.readCSVLine(reader, _inds, false)) {
        if (_blockEnd) {
          _blockEnd = false;
          _needHeader = true;
          continue;
        }
        _done = true;
        break;
      }
      got += _buf.size() - before;
    }
  } catch (const HTTPStreamException& e) {
    out.takeRows(_buf);
    fail("Failed to connect to " + _server + " because of " + e.what());
    return false;
  }
  out.takeRows(_buf);
  if (_done) {
    _stream.reset();
    _client.disconnect();
  }
  return !_done;
}
