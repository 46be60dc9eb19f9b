#include "framework/http/HTTPServer.h"

#include <netdb.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPRequestHandlerThread.h"
#include "framework/http/MHTTPStreamHandler.h"
#include "util/AcceptFd.h"
#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"
#include "util/SSLContext.h"
#include "util/SSLRawDataFd.h"
#include "util/TcpRawDataFd.h"

static Logger gLogger("HTTPServer");

namespace {

constexpr unsigned long kBufferSize = 16384;
constexpr int kShutdownWaitSeconds = 60;

struct FnActor : public InThreadActor {
  explicit FnActor(std::function<void()> f) : fn(std::move(f)) {}
  void run() override { fn(); }
  std::function<void()> fn;
};

// Runs fn on the loop's thread and waits (here when the loop is not running).
void onLoop(EventLoop* loop, std::function<void()> fn) {
  FnActor a(std::move(fn));
  loop->internal_runInThread(&a, true);
}

bool containsNoCase(const Str& hay, const char* needle) {
  const size_t n = std::strlen(needle);
  if (hay.size() < n) return false;
  for (size_t i = 0; i + n <= hay.size(); ++i) {
    size_t j = 0;
    while (j < n && std::tolower(static_cast<unsigned char>(hay[i + j])) == needle[j]) ++j;
    if (j == n) return true;
  }
  return false;
}

int passwordCallback(char* buf, int size, int /*rwflag*/, void* u) {
  const Str* pw = static_cast<const Str*>(u);
  if (pw == nullptr || pw->empty() || size <= 0) return 0;
  int n = static_cast<int>(pw->size()) < size ? static_cast<int>(pw->size()) : size;
  std::memcpy(buf, pw->data(), static_cast<size_t>(n));
  return n;
}

Str opensslError() {
  unsigned long e = ERR_get_error();
  if (e == 0) return Str("unknown error");
  char buf[256];
  ERR_error_string_n(e, buf, sizeof buf);
  ERR_clear_error();
  return Str(buf);
}

// Loads the context. The key is decrypted here with the configured password
// (never through a terminal prompt) and handed to the context through an
// anonymous in-memory file, so the plain key never touches the disk.
bool loadContext(const HTTPServerConfig& cfg, SSLContext& ctx, Str& err) {
  const Str& keyFile = cfg.keyFile.empty() ? cfg.certFile : cfg.keyFile;
  BIO* in = BIO_new_file(keyFile.c_str(), "r");
  if (in == nullptr) {
    err = "cannot read " + keyFile + ": " + opensslError();
    return false;
  }
  EVP_PKEY* key = PEM_read_bio_PrivateKey(in, nullptr, passwordCallback, const_cast<Str*>(&cfg.password));
  BIO_free(in);
  if (key == nullptr) {
    err = "cannot load the private key: " + opensslError();
    return false;
  }
  int mfd = memfd_create("velmor-server-key", MFD_CLOEXEC);
  bool ok = false;
  if (mfd >= 0) {
    BIO* out = BIO_new_fd(mfd, BIO_NOCLOSE);
    ok = out != nullptr && PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    BIO_free(out);
  }
  EVP_PKEY_free(key);
  if (!ok) {
    err = "cannot hold the private key in memory";
    if (mfd >= 0) close(mfd);
    return false;
  }
  ok = ctx.loadServer(cfg.certFile, Str::fromFormat("/proc/self/fd/%d", mfd), err);
  close(mfd);
  if (!ok) return false;
  if (!cfg.cipherList.empty() && SSL_CTX_set_cipher_list(ctx.get(), cfg.cipherList.c_str()) != 1) {
    err = "bad cipher list: " + opensslError();
    return false;
  }
  return true;
}

}  // namespace

void FdData::Timer::when_expired() { _server->requestTimedOut(_data); }

void HTTPServer::DoneCallback::when_expired() { _s->processDone(); }

HTTPServer::HTTPServer() = default;

HTTPServer::~HTTPServer() {
  handleShutdown();
  for (Listener& l : _listeners) {
    if (l.acceptor == nullptr) l.sock.close();
  }
  std::map<TcpPolledFd*, FdData*> left;
  left.swap(_byPolledFd);
  for (auto& e : left) delete e.second;
}

HTTPServer* HTTPServer::instance() {
  static HTTPServer* s = new HTTPServer;
  return s;
}

void HTTPServer::setRequestHandler(MHttpRequestHandler* h) { _handler.store(h); }

// --- start ------------------------------------------------------------------

bool HTTPServer::init(const HTTPServerConfig& cfg) {
  gLogger.info("Initilizing HTTPServer");
  _cfg = cfg;
  _listeners.clear();
  for (const HTTPServerPort& p : _cfg.ports) {
    Listener l;
    l.cfg = p;
    _listeners.push_back(l);
  }
  setupSSL();
  return bindPorts();
}

bool HTTPServer::setupSSL() {
  gLogger.info("Setting up SSL if needed");
  if (!_cfg.anySSL()) return true;
  gLogger.info("Initializing SSL Context");
  auto ctx = std::make_unique<SSLContext>();
  Str err;
  if (!loadContext(_cfg, *ctx, err)) {
    gLogger.error("SSL context could not be created - error in cert or password is wrong");
    gLogger.error("SSL will not be enabled");
    gLogger.debug("SSL context error: %s", err.c_str());
    for (Listener& l : _listeners) l.cfg.ssl = false;
    return false;
  }
  _sslCtx = std::move(ctx);
  return true;
}

bool HTTPServer::resolveBindAddress(SocketAddress& out) {
  const char* ip = std::getenv("VELMOR_BINDIP");
  if (ip == nullptr || *ip == '\0') {
    out = SocketAddress::ipv4Any(0);
    return true;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  int rc = getaddrinfo(ip, nullptr, &hints, &res);
  if (rc != 0 || res == nullptr) {
    gLogger.error("Couldn't resolve name error - %s", gai_strerror(rc));
    gLogger.error("Possible invalid VELMOR_BINDIP environment variable");
    return false;
  }
  std::memcpy(out.get(), res->ai_addr, res->ai_addrlen);
  out.setLength(res->ai_addrlen);
  freeaddrinfo(res);
  return true;
}

bool HTTPServer::bindPorts() {
  gLogger.info("Binding ports");
  SocketAddress base;
  if (!resolveBindAddress(base)) return false;
  for (Listener& l : _listeners) {
    SocketAddress a = base;
    if (a.family() == AF_INET6)
      reinterpret_cast<sockaddr_in6*>(a.get())->sin6_port = htons(static_cast<uint16_t>(l.cfg.port));
    else
      reinterpret_cast<sockaddr_in*>(a.get())->sin_port = htons(static_cast<uint16_t>(l.cfg.port));
    PollableDescriptor s = PollableDescriptor::socketFor(a);
    bool ok = s.valid() && s.setReuseAddress(true) && s.bind(a) && s.listen(1024);
    SocketAddress local;
    if (ok && s.localAddress(local)) l.boundPort = local.port();
    if (!ok) {
      gLogger.error("Could not bind to port %d", l.cfg.port);
      s.close();
      for (Listener& o : _listeners) {
        o.sock.close();
        o.sock = PollableDescriptor();
        o.boundPort = 0;
      }
      return false;
    }
    l.sock = s;
  }
  _bound = true;
  return true;
}

bool HTTPServer::go(EventLoop* loop) {
  _loop = loop;
  bool ok = false;
  onLoop(loop, [&] { ok = setupAccepts(); });
  return ok;
}

bool HTTPServer::setupAccepts() {
  gLogger.info("Setting up acceptors");
  if (!_bound) {
    gLogger.error("Cannot set up accepts without binding ports first");
    return false;
  }
  bool ok = true;
  for (Listener& l : _listeners) {
    if (!l.sock.valid()) {
      gLogger.error("Could not accept on port %d", l.cfg.port);
      ok = false;
      continue;
    }
    if (!l.sock.setNonblock(true)) {
      gLogger.error("Could not accept connections on port %d", l.boundPort);
      ok = false;
      continue;
    }
    l.acceptor = new AcceptFd(&l, _loop, this);
    l.acceptor->start(l.sock);
    if (l.cfg.ssl && _sslCtx)
      gLogger.info("Accepting connections on port %d for SSL", l.boundPort);
    else
      gLogger.info("Accepting connections on port %d", l.boundPort);
  }
  _accepting = ok;
  return ok;
}

int HTTPServer::boundPort(size_t i) const { return i < _listeners.size() ? _listeners[i].boundPort : 0; }

bool HTTPServer::portIsSSL(size_t i) const {
  return i < _listeners.size() && _listeners[i].cfg.ssl && _sslCtx != nullptr;
}

// --- connections ------------------------------------------------------------

TcpPolledFd* HTTPServer::create(void* owner, PollableDescriptor fd, SocketAddress const& from) {
  Listener* l = static_cast<Listener*>(owner);
  const bool ssl = l->cfg.ssl && _sslCtx != nullptr;
  TcpPolledFd* p;
  if (ssl) {
    p = new SSLRawDataFd(_sslCtx.get(), kBufferSize, this);
    gLogger.debug("Created SSL fd");
  } else {
    p = new TcpRawDataFd(kBufferSize, this);
    gLogger.debug("Created TCP fd");
  }
  FdData* d = new FdData(this, p);
  d->_conn._fd = fd;
  d->_conn._peer = from;
  d->_conn._localPort = l->boundPort;
  d->_conn._ssl = ssl;
  _byFd[fd.get()] = d;
  _byPolledFd[p] = d;
  _loop->add(&d->_timer, static_cast<unsigned long long>(_cfg.requestTimeout) * 1000ULL);
  return p;
}

void HTTPServer::fdClosing(void*, PollableDescriptor, TcpPolledFd* p) {
  auto it = _byPolledFd.find(p);
  if (it == _byPolledFd.end()) return;
  FdData* d = it->second;
  _byFd.erase(d->_conn._fd.get());
  if (d->_state == FdData::State::kDispatched || d->_state == FdData::State::kStreaming) {
    // Its owner still holds the record; it is freed when the owner is done.
    d->_closed = true;
    _loop->remove(&d->_timer);
    return;
  }
  deleteFdData(d);
}

void HTTPServer::deleteFdData(FdData* d) {
  _loop->remove(&d->_timer);
  _byPolledFd.erase(d->_pPolledFd);
  auto it = _byFd.find(d->_conn._fd.get());
  if (it != _byFd.end() && it->second == d) _byFd.erase(it);
  if (d->_request) {
    ScopedLock l(_mutex);
    _sslRequests.erase(d->_request.get());
  }
  delete d;
}

void HTTPServer::closeConnection(FdData* d) {
  TcpPolledFd* p = d->_pPolledFd;
  d->_state = FdData::State::kReplying;
  p->afterEof();
  // afterEof() tells us through fdClosing(); a connection already ending
  // does not, so the record goes here.
  auto it = _byPolledFd.find(p);
  if (it != _byPolledFd.end() && it->second == d) deleteFdData(d);
}

FdData* HTTPServer::findByFd(PollableDescriptor fd) const {
  auto it = _byFd.find(fd.get());
  return it == _byFd.end() ? nullptr : it->second;
}

void HTTPServer::requestTimedOut(FdData* d) {
  if (d->_state == FdData::State::kReading)
    gLogger.info("Dropping connection from %s: request not complete in %d seconds",
                 d->_conn._peer.describe().c_str(), _cfg.requestTimeout);
  else
    gLogger.info("Dropping connection from %s: reply not taken in time", d->_conn._peer.describe().c_str());
  closeConnection(d);
}

// --- reading ----------------------------------------------------------------

long long HTTPServer::getContentLength(const Str& header) {
  long long len = 0;
  bool seen = false;
  size_t pos = 0;
  while (pos < header.size()) {
    size_t nl = header.find('\n', pos);
    if (nl == Str::npos) nl = header.size();
    Str line(header.substr(pos, nl - pos));
    pos = nl + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t colon = line.find(':');
    if (colon == Str::npos) continue;
    Str name(line.substr(0, colon));
    for (char& c : name) c = char(std::tolower(static_cast<unsigned char>(c)));
    Str value(line.substr(colon + 1));
    value.trimInPlace();
    if (name == "transfer-encoding") {
      if (containsNoCase(value, "chunked")) return -2;
    } else if (name == "content-length") {
      if (value.empty() || value.size() > 18) return -1;
      long long v = 0;
      for (char c : value) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + (c - '0');
      }
      if (seen && v != len) return -1;
      seen = true;
      len = v;
    }
  }
  return len;
}

int HTTPServer::validateMethod(const Str& method) {
  static const char* const kKnown[] = {"GET", "POST", "DELETE", "PUT", "HEAD", "CONNECT", "TRACE", "OPTIONS"};
  for (const char* k : kKnown)
    if (method == k) return 0;
  if (method.empty()) return 400;
  for (char c : method) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (!std::isalnum(u) && !std::strchr("!#$%&'*+-.^_`|~", c)) return 400;
  }
  return 405;
}

long HTTPServer::rawTcpDataAvailable(PollableDescriptor fd, char const* data, unsigned long size) {
  FdData* d = findByFd(fd);
  if (d == nullptr || d->_state != FdData::State::kReading) return static_cast<long>(size);  // discarded
  d->_buf.append(data, size);

  if (d->_bodyStart == 0) {
    // The first line tells garbage apart early.
    size_t nl = d->_buf.find('\n');
    if (nl != Str::npos) {
      size_t sp = d->_buf.find(' ');
      if (sp == Str::npos || sp > nl) {
        refuse(d, 400, nullptr);
        return static_cast<long>(size);
      }
      int bad = validateMethod(Str(d->_buf.substr(0, sp)));
      if (bad != 0) {
        refuse(d, bad, nullptr);
        return static_cast<long>(size);
      }
    }
    size_t from = d->_buf.size() > size + 3 ? d->_buf.size() - size - 3 : 0;
    size_t crlf = d->_buf.find("\r\n\r\n", from);
    size_t lf = d->_buf.find("\n\n", from);
    size_t end = Str::npos;
    if (crlf != Str::npos && (lf == Str::npos || crlf + 2 <= lf)) end = crlf + 4;
    else if (lf != Str::npos) end = lf + 2;
    if (end == Str::npos) {
      if (d->_buf.size() > _cfg.maxHeaderBytes) refuse(d, 431, nullptr);
      return static_cast<long>(size);
    }
    if (end > _cfg.maxHeaderBytes) {
      refuse(d, 431, nullptr);
      return static_cast<long>(size);
    }
    d->_bodyStart = end;
    long long len = getContentLength(Str(d->_buf.substr(0, end)));
    if (len == -2) {
      refuse(d, 411, nullptr);
      return static_cast<long>(size);
    }
    if (len < 0) {
      refuse(d, 400, nullptr);
      return static_cast<long>(size);
    }
    if (static_cast<unsigned long long>(len) > _cfg.maxContentLength) {
      refuse(d, 413, nullptr);
      return static_cast<long>(size);
    }
    d->_contentLength = static_cast<unsigned long>(len);
    // A client that waits for leave to send its body gets it now.
    if (len > 0 && d->_buf.size() == end && containsNoCase(Str(d->_buf.substr(0, end)), "\nexpect: 100-continue")) {
      static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      d->_pPolledFd->nonblockingWrite(kContinue, sizeof kContinue - 1);
      return static_cast<long>(size);
    }
  }
  if (d->_buf.size() - d->_bodyStart >= d->_contentLength) requestComplete(d);
  return static_cast<long>(size);
}

void HTTPServer::logRequest(const FdData* d) const {
  if (!gLogger.isDebugEnabled()) return;
  const Str& h = d->_buf;
  if (containsNoCase(h, "password") || d->_request->header("authorization") != nullptr) {
    gLogger.debug("request appears to include a password - will not log.");
  } else {
    gLogger.debug("HEADER = %s", h.substr(0, d->_bodyStart).c_str());
  }
  gLogger.debug("BODY length=%lu", d->_contentLength);
  gLogger.debug("METHOD = %s", d->_request->method().c_str());
}

bool HTTPServer::requestComplete(FdData* d) {
  _loop->remove(&d->_timer);
  Str header(d->_buf.substr(0, d->_bodyStart));
  Str body(d->_buf.substr(d->_bodyStart, d->_contentLength));
  auto req = std::make_unique<HTTPRequest>();
  Str err;
  if (!req->parse(header, body, err)) {
    gLogger.info("Bad request from %s: %s", d->_conn._peer.describe().c_str(), err.c_str());
    refuse(d, 400, nullptr);
    return false;
  }
  d->_request = std::move(req);
  d->_conn._pRequest = d->_request.get();
  logRequest(d);
  Str().swap(d->_buf);
  if (d->_conn._ssl) {
    ScopedLock l(_mutex);
    _sslRequests.insert(d->_request.get());
  }
  if (MHTTPStreamHandler* h = findStreamHandler(d->_request->path()))
    startStream(d, h);
  else
    executeThreadedRequest(d);
  return true;
}

void HTTPServer::executeThreadedRequest(FdData* d) {
  {
    ScopedLock l(_mutex);
    if (_threads >= static_cast<size_t>(_cfg.maxThreads)) {
      ScopedUnlock u(_mutex);
      gLogger.warn("Server busy: %d request threads running", _cfg.maxThreads);
      refuse(d, 503, "Server busy");
      return;
    }
    ++_threads;
  }
  TcpPolledFd* p = d->_pPolledFd;
  MHttpRequestHandler* h = _handler.load();
  d->_state = FdData::State::kDispatched;
  p->setOwnedByWorker(true);
  addRequest(p, h);
  HTTPRequestHandlerThread* t = nullptr;
  try {
    t = new HTTPRequestHandlerThread(this, d, h);
  } catch (const std::exception& e) {
    gLogger.error("Cannot start a request thread: %s", e.what());
  }
  if (t == nullptr) {
    removeRequest(p);
    p->setOwnedByWorker(false);
    {
      ScopedLock l(_mutex);
      --_threads;
      _cond.internal_wake_all();
    }
    d->_state = FdData::State::kReading;
    refuse(d, 503, "Server busy");
    return;
  }
  t->go();
}

void HTTPServer::startStream(FdData* d, MHTTPStreamHandler* h) {
  d->_state = FdData::State::kStreaming;
  d->_pPolledFd->setOwnedByWorker(true);
  h->handleStream(this, d->_pPolledFd, d->_conn);
}

// --- writing ----------------------------------------------------------------

void HTTPServer::refuse(FdData* d, int status, const char* text) {
  Str t;
  if (text != nullptr) t = text;
  else HTTPReply::getErrorString(status, t);
  std::unique_ptr<HTTPReply> r(HTTPReply::createErrorXMLReply(status, "ERROR", t));
  d->_out.clear();
  r->toString(d->_out);
  startWrite(d, FdData::State::kRefusing);
}

void HTTPServer::startWrite(FdData* d, FdData::State state) {
  d->_state = state;
  _loop->remove(&d->_timer);
  _loop->add(&d->_timer, static_cast<unsigned long long>(_cfg.requestTimeout) * 1000ULL);
  // Completion (or failure) comes back through rawTcpWriteCompleted(),
  // possibly before this returns.
  d->_pPolledFd->nonblockingWrite(d->_out.data(), d->_out.size());
}

void HTTPServer::rawTcpWriteCompleted(PollableDescriptor fd, int error, long) {
  FdData* d = findByFd(fd);
  if (d == nullptr) return;
  if (error != 0 || d->_state == FdData::State::kReplying) {
    closeConnection(d);
  } else if (d->_state == FdData::State::kRefusing) {
    // The client may still be sending: shut our side and read to its EOF,
    // so the reply is not lost to a reset.
    ::shutdown(fd.get(), SHUT_WR);
    d->_state = FdData::State::kDraining;
  }
}

void HTTPServer::requestFinished(HTTPRequestHandlerThread* t, FdData* d, TcpPolledFd* p, Str&& reply) {
  {
    ScopedLock l(_mutex);
    _done.push_back(Done{t, d, p, std::move(reply)});
  }
  // A loop that is not running leaves the list to handleShutdown().
  _loop->addFromAnywhere(&_doneCallback);
  ScopedLock l(_mutex);
  --_threads;
  _cond.internal_wake_all();
}

void HTTPServer::processDone() {
  std::vector<Done> list;
  {
    ScopedLock l(_mutex);
    list.swap(_done);
  }
  for (Done& e : list) {
    FdData* d = e.data;
    if (d->_closed) {
      removeRequest(e.fd);
      deleteFdData(d);
    } else {
      if (getPolledFd(d->_conn._fd) != e.fd)
        gLogger.error("assertion failed: _pPolledFd == _pServer->getPolledFd(_pFdData->_pRequest->_fd)");
      removeRequest(e.fd);
      e.fd->setOwnedByWorker(false);
      d->_out = std::move(e.reply);
      startWrite(d, FdData::State::kReplying);
    }
    e.thread->join();
    delete e.thread;
  }
}

// --- streams ----------------------------------------------------------------

void HTTPServer::registerStreamHandler(const Str& path, MHTTPStreamHandler* h) {
  ScopedLock l(_mutex);
  _streamHandlers[path] = h;
}

void HTTPServer::unregisterStreamHandler(const Str& path) {
  ScopedLock l(_mutex);
  _streamHandlers.erase(path);
}

MHTTPStreamHandler* HTTPServer::findStreamHandler(const Str& path) const {
  ScopedLock l(_mutex);
  auto it = _streamHandlers.find(path);
  if (it != _streamHandlers.end()) return it->second;
  for (const auto& e : _streamHandlers)
    if (e.first.endswith('/') && path.startswith(e.first.c_str())) return e.second;
  return nullptr;
}

bool HTTPServer::writeToStream(TcpPolledFd* p, const char* data, unsigned long size) {
  if (_loop == nullptr) return false;
  bool ok = false;
  onLoop(_loop, [&] {
    auto it = _byPolledFd.find(p);
    if (it == _byPolledFd.end() || it->second->_closed) return;
    ok = p->blockingWrite(data, size, _cfg.requestTimeout * 1000);
  });
  return ok;
}

void HTTPServer::releaseStream(TcpPolledFd* p) {
  if (_loop == nullptr) return;
  onLoop(_loop, [&] {
    auto it = _byPolledFd.find(p);
    if (it == _byPolledFd.end()) return;
    FdData* d = it->second;
    if (d->_closed) {
      deleteFdData(d);
      return;
    }
    p->setOwnedByWorker(false);
    closeConnection(d);
  });
}

// --- the request table ------------------------------------------------------

void HTTPServer::addRequest(TcpPolledFd* p, MHttpRequestHandler* h) {
  ScopedLock l(_mutex);
  _requests[p] = h;
}

void HTTPServer::removeRequest(TcpPolledFd* p) {
  ScopedLock l(_mutex);
  _requests.erase(p);
}

TcpPolledFd* HTTPServer::getPolledFd(PollableDescriptor fd) const {
  ScopedLock l(_mutex);
  for (const auto& e : _requests)
    if (e.first->socket() == fd) return e.first;
  return nullptr;
}

size_t HTTPServer::activeThreads() const {
  ScopedLock l(_mutex);
  return _threads;
}

void HTTPServer::getUrlBase(const HTTPRequest* req, Str& out) const {
  bool ssl;
  {
    ScopedLock l(_mutex);
    ssl = _sslRequests.count(req) != 0;
  }
  Str host = req->getHost();
  if (host.empty()) host = Str::fromFormat("localhost:%d", boundPort(0));
  out = (ssl ? "https://" : "http://") + host;
  gLogger.debug("URLBASE FOR THIS REQUEST IS %s", out.c_str());
}

// --- shutdown ---------------------------------------------------------------

void HTTPServer::handleShutdown() {
  if (_shutDown.exchange(true)) return;
  if (_loop == nullptr) return;
  gLogger.info("Shutting down the HTTP server");
  onLoop(_loop, [this] {
    for (Listener& l : _listeners)
      if (l.acceptor != nullptr && l.acceptor->isActive()) _loop->removeActivePolledFd(l.acceptor);
  });
  {
    // A handler that never returns must not hold the service up for good:
    // after a minute its thread is left to finish on its own.
    ScopedLock l(_mutex);
    for (int waited = 0; _threads > 0 && waited < kShutdownWaitSeconds; waited += 10) {
      if (!_cond.wait(_mutex, 10.0) && _threads > 0)
        gLogger.info("Waiting for %zu request threads to finish", _threads);
    }
    if (_threads > 0) gLogger.warn("Giving up waiting for %zu request threads", _threads);
  }
  onLoop(_loop, [this] {
    _loop->remove(&_doneCallback);
    processDone();
    shutdownAllFds();
  });
}

void HTTPServer::shutdownAllFds() {
  for (Listener& l : _listeners) {
    if (l.acceptor != nullptr) {
      delete l.acceptor;  // closes its connections and the listening socket
      l.acceptor = nullptr;
    } else {
      l.sock.close();
    }
    l.sock = PollableDescriptor();
  }
  _accepting = false;
}
