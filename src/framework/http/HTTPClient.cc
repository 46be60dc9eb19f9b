#include "framework/http/HTTPClient.h"

#include <netdb.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>

#include "util/SSLContext.h"
#include "util/SSLNetworkConnection.h"

bool HTTPClient::URL::parse(const Str& url, Str& err) {
  size_t colon = url.find("://");
  if (colon == Str::npos) {
    err = "not an http or https URL: " + url;
    return false;
  }
  scheme = Str(url.substr(0, colon));
  for (char& c : scheme) c = char(std::tolower(static_cast<unsigned char>(c)));
  if (scheme != "http" && scheme != "https") {
    err = "not an http or https URL: " + url;
    return false;
  }
  size_t start = colon + 3;
  size_t slash = url.find_first_of("/?", start);
  Str authority(url.substr(start, slash == Str::npos ? Str::npos : slash - start));
  pathAndQuery = slash == Str::npos ? Str("/") : Str(url.substr(slash));
  if (pathAndQuery.startswith('?')) pathAndQuery = "/" + pathAndQuery;
  size_t at = authority.rfind('@');
  if (at != Str::npos) authority = Str(authority.substr(at + 1));
  Str portText;
  if (authority.startswith('[')) {
    size_t close = authority.find(']');
    if (close == Str::npos) {
      err = "malformed host in URL: " + url;
      return false;
    }
    host = Str(authority.substr(1, close - 1));
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') {
        err = "malformed host in URL: " + url;
        return false;
      }
      portText = Str(authority.substr(close + 2));
    }
  } else {
    size_t pc = authority.rfind(':');
    host = Str(authority.substr(0, pc));
    if (pc != Str::npos) portText = Str(authority.substr(pc + 1));
  }
  if (host.empty()) {
    err = "no host in URL: " + url;
    return false;
  }
  port = ssl() ? 443 : 80;
  if (!portText.empty()) {
    long p = 0;
    if (!portText.tryToLong(p) || p <= 0 || p > 65535) {
      err = "bad port in URL: " + url;
      return false;
    }
    port = static_cast<int>(p);
  }
  return true;
}

Str HTTPClient::URL::hostHeader() const {
  Str h = host.find(':') != Str::npos ? "[" + host + "]" : host;
  if (port != (ssl() ? 443 : 80)) h.appendFormat(":%d", port);
  return h;
}

HTTPClient::HTTPClient() = default;

HTTPClient::~HTTPClient() { disconnect(); }

void HTTPClient::disconnect() {
  if (_ssl) {
    if (_ssl->handshakeDone()) _ssl->shutdown(100);
    _ssl.reset();
  }
  if (_fd.valid()) _fd.close();
  _fd = PollableDescriptor();
}

bool HTTPClient::connectTo(const Str& host, int port, int ms, Str& err) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  Str service = Str::fromFormat("%d", port);
  int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &res);
  if (rc != 0) {
    err = "cannot resolve " + host + ": " + gai_strerror(rc);
    return false;
  }
  err = "cannot connect to " + host;
  for (addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
    SocketAddress a;
    std::memcpy(a.get(), ai->ai_addr, ai->ai_addrlen);
    a.setLength(ai->ai_addrlen);
    PollableDescriptor fd = PollableDescriptor::socketFor(a);
    if (!fd.valid()) continue;
    fd.setNonblock(true);
    int c = fd.connect(a);
    int e = c == 0 ? 0 : c > 0 ? fd.select_for_connect(ms) : errno;
    if (e == 0) {
      fd.setNoDelay(true);
      _fd = fd;
      freeaddrinfo(res);
      return true;
    }
    err = Str::fromFormat("cannot connect to %s:%d: %s", host.c_str(), port, std::strerror(e));
    fd.close();
  }
  freeaddrinfo(res);
  return false;
}

bool HTTPClient::startTLS(Str& err) {
  if (!_ctx) {
    _ctx = std::make_unique<SSLContext>();
    if (!_ctx->loadClient(err)) {
      _ctx.reset();
      return false;
    }
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    SSL_CTX_set_options(_ctx->get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
    if (_verify) {
      SSL_CTX_set_verify(_ctx->get(), SSL_VERIFY_PEER, nullptr);
      int ok = _caFile.empty() ? SSL_CTX_set_default_verify_paths(_ctx->get())
                               : SSL_CTX_load_verify_locations(_ctx->get(), _caFile.c_str(), nullptr);
      if (ok != 1) {
        err = "cannot load the trusted certificates";
        _ctx.reset();
        return false;
      }
    }
  }
  _ssl = std::make_unique<SSLNetworkConnection>();
  if (!_ssl->setup(_ctx.get(), _fd, true, err)) return false;
  SSL_set_tlsext_host_name(_ssl->ssl(), _url.host.c_str());
  if (_verify) SSL_set1_host(_ssl->ssl(), _url.host.c_str());
  if (!_ssl->handshake(_t.connectMs, err)) {
    if (_verify && SSL_get_verify_result(_ssl->ssl()) != X509_V_OK)
      err = Str("certificate verification failed: ") +
            X509_verify_cert_error_string(SSL_get_verify_result(_ssl->ssl()));
    return false;
  }
  return true;
}

bool HTTPClient::connect(const Str& url, const Timeouts& t, Str& err) {
  disconnect();
  _t = t;
  if (!_url.parse(url, err)) return false;
  if (!connectTo(_url.host, _url.port, t.connectMs, err)) return false;
  if (_url.ssl() && !startTLS(err)) {
    disconnect();
    return false;
  }
  return true;
}

bool HTTPClient::sendAll(const char* data, size_t size, Str& err) {
  while (size > 0) {
    ssize_t n = _ssl ? _fd.writeWithTimeout(_ssl.get(), data, size, _t.writeMs)
                     : _fd.writeWithTimeout(data, size, _t.writeMs);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      err = errno == ETIMEDOUT ? Str("timed out writing the request")
                               : Str("cannot write the request: ") + std::strerror(errno);
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

long HTTPClient::readSome(char* buf, size_t size, Str& err) {
  for (;;) {
    ssize_t n = _ssl ? _fd.readWithTimeout(_ssl.get(), buf, size, _t.readMs)
                     : _fd.readWithTimeout(buf, size, _t.readMs);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR || errno == EAGAIN) continue;
    err = errno == ETIMEDOUT ? Str("timed out reading the reply")
                             : Str("cannot read the reply: ") + std::strerror(errno);
    return -1;
  }
}

bool HTTPClient::execute(const Str& method, const Str& url, const Str& body, const Str& contentType,
                         const Timeouts& t, HTTPRequestReply& reply, Str& err,
                         const std::vector<std::pair<Str, Str>>& headers) {
  if (!connect(url, t, err)) return false;
  HTTPRequestReply req;
  req.putRequest(method, _url.pathAndQuery, _url.hostHeader());
  for (const auto& h : headers) req.putHeader(h.first, h.second);
  if (!body.empty() || method == "POST" || method == "PUT") req.putHTTPBody(body, contentType);
  Str bytes = req.getFullRequestReply();
  if (!sendAll(bytes.data(), bytes.size(), err)) {
    disconnect();
    return false;
  }
  Str in;
  char buf[16384];
  for (;;) {
    Str readErr;
    long n = readSome(buf, sizeof buf, readErr);
    if (n < 0 && errno == ETIMEDOUT) {
      err = readErr;
      disconnect();
      return false;
    }
    const bool eof = n <= 0;  // a TLS peer that drops the line also ends it
    if (n > 0) in.append(buf, static_cast<size_t>(n));
    if (!eof && reply.bytesNeeded() > in.size()) continue;
    HTTPRequestReply::Parse r = reply.parseFull(in, eof, err);
    if (r == HTTPRequestReply::kComplete) break;
    if (r == HTTPRequestReply::kMalformed) {
      if (n < 0) err = readErr + " (" + err + ")";
      disconnect();
      return false;
    }
  }
  disconnect();
  return true;
}
