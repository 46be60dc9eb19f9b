// The HTTP side of the service under load, on one machine in one run: the
// real server, dispatcher, session manager and local-user back end in this
// process, clients as threads over loopback, one connection per request (the
// server closes after every reply).
//
//   login        POST /services/auth/login, the real password check
//   info+auth    GET /services/server/info with "Authorization: Velmor <key>"
//   info-noauth  the same handler on a stanza without authentication (added
//                to the scratch home's local restmap.conf)
//   list         GET /services, which needs no authentication
//   tls          a new connection, a full TLS handshake (no resumption) and
//                GET /services
//
// Each case runs HTTP_BENCH_SECONDS (default 3) per client count (the plain
// cases with HTTP_BENCH_CLIENTS, default "1 16 64"; tls with 1 and 16); a
// client sends its next request as soon as the last reply is read to its
// end. Only 200 replies that say what they should (a session key, the user,
// the feed) count; everything else is an error, counted by kind and printed
// below the table. The cost of authentication per request is printed twice
// as a difference of mean latencies at the same number of clients: info+auth
// minus list, and info+auth minus info-noauth (the latter leaves out the
// routing and the handler, so it is the session check alone).
//
// DESIGN. main() builds a scratch home (restmap.conf of the source tree, one
// user, a self-signed RSA 2048 certificate made here), starts an
// EventLoopThread with an HTTPServer on two free loopback ports (plain and
// TLS), and runs the cases one after the other. Every client thread owns its
// own results; main() merges them after joining. Every wait is bounded: a
// request that gets no complete reply within 10 s is an error. The server is
// shut down and the loop stopped before exit, the home removed (KEEP=1
// keeps it and prints its path).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "framework/UserManager.h"
#include "framework/auth/AuthenticationManagerVelmor.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "framework/rest/ServerInfoHandler.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/EventLoopThread.h"
#include "util/Logger.h"
#include "util/MainThread.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kUser = "benchuser";
const char* const kPassword = "correct horse battery";
constexpr int kReplyTimeoutMs = 10000;

// ---------------------------------------------------------------- scratch home

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

bool copyFile(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  if (!in) return false;
  std::ofstream out(to, std::ios::binary | std::ios::trunc);
  out << in.rdbuf();
  return static_cast<bool>(out);
}

// A self-signed certificate for CN=localhost and its key, as PEM files.
bool makeCertificate(const std::string& certPath, const std::string& keyPath) {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* x = X509_new();
  bool ok = key != nullptr && x != nullptr;
  if (ok) {
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), 2 * 86400);
    X509_set_pubkey(x, key);
    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1, -1,
                               0);
    X509_set_issuer_name(x, name);
    ok = X509_sign(x, key, EVP_sha256()) > 0;
  }
  if (ok) {
    FILE* c = fopen(certPath.c_str(), "w");
    FILE* k = fopen(keyPath.c_str(), "w");
    ok = c != nullptr && k != nullptr && PEM_write_X509(c, x) == 1 &&
         PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (c) fclose(c);
    if (k) fclose(k);
  }
  X509_free(x);
  EVP_PKEY_free(key);
  return ok;
}

// ---------------------------------------------------------------- one request

// What one request came to: ok, or the kind of error.
struct Outcome {
  bool ok = false;
  std::string error;
};

// Waits for `events` on fd until `end`; false on timeout.
bool waitFor(int fd, short events, Clock::time_point end) {
  for (;;) {
    int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, left);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

int connectLoopback(int port, std::string& err) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    err = std::string("socket: ") + strerror(errno);
    return -1;
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    err = std::string("connect: ") + strerror(errno);
    ::close(fd);
    return -1;
  }
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

// Judges a whole reply: status 200 and, when given, `mustHave` in it.
Outcome judge(const std::string& reply, const std::string& mustHave) {
  Outcome o;
  if (reply.compare(0, 9, "HTTP/1.1 ") != 0 && reply.compare(0, 9, "HTTP/1.0 ") != 0) {
    o.error = reply.empty() ? "closed without a reply" : "not an HTTP reply";
    return o;
  }
  std::string status = reply.substr(9, 3);
  if (status != "200") {
    o.error = "HTTP " + status;
    return o;
  }
  if (!mustHave.empty() && reply.find(mustHave) == std::string::npos) {
    o.error = "200 without " + mustHave;
    return o;
  }
  o.ok = true;
  return o;
}

// Sends `request` on a new plain connection and reads until the server
// closes.
Outcome plainRequest(int port, const std::string& request, const std::string& mustHave) {
  Outcome o;
  int fd = connectLoopback(port, o.error);
  if (fd < 0) return o;
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kReplyTimeoutMs);
  size_t sent = 0;
  while (sent < request.size()) {
    ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      o.error = std::string("send: ") + strerror(errno);
      ::close(fd);
      return o;
    }
    sent += static_cast<size_t>(n);
  }
  std::string reply;
  char buf[16384];
  for (;;) {
    if (!waitFor(fd, POLLIN, end)) {
      ::close(fd);
      o.error = "no complete reply within 10 s";
      return o;
    }
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      o.error = std::string("read: ") + strerror(errno);
      ::close(fd);
      return o;
    }
    reply.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return judge(reply, mustHave);
}

// Handshake, request and reply on a connected SSL; "" or what went wrong.
std::string tlsExchange(SSL* ssl, const std::string& request, std::string& reply, std::string* protocol) {
  if (SSL_connect(ssl) != 1) {
    unsigned long e = ERR_get_error();
    const char* why = e != 0 ? ERR_reason_error_string(e) : strerror(errno);
    return std::string("handshake: ") + (why != nullptr ? why : "?");
  }
  if (protocol != nullptr) *protocol = std::string(SSL_get_version(ssl)) + " " + SSL_get_cipher_name(ssl);
  if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size()))
    return "TLS write failed";
  char buf[16384];
  for (;;) {
    int n = SSL_read(ssl, buf, sizeof buf);
    if (n > 0) {
      reply.append(buf, static_cast<size_t>(n));
      continue;
    }
    int e = SSL_get_error(ssl, n);
    // A peer that closes without close_notify still delivered the reply.
    if (e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && errno == 0) ||
        (e == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING))
      return "";
    return (errno == EAGAIN || errno == EWOULDBLOCK) ? "no complete reply within 10 s" : "TLS read failed";
  }
}

// The same as plainRequest over TLS: a full handshake on every connection
// (the client context keeps no sessions and asks for no tickets).
// `protocol`, when given, gets the version and cipher agreed.
Outcome tlsRequest(SSL_CTX* ctx, int port, const std::string& request, const std::string& mustHave,
                   std::string* protocol = nullptr) {
  Outcome o;
  int fd = connectLoopback(port, o.error);
  if (fd < 0) return o;
  timeval tv{kReplyTimeoutMs / 1000, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  SSL* ssl = SSL_new(ctx);
  SSL_set_fd(ssl, fd);
  std::string reply;
  o.error = tlsExchange(ssl, request, reply, protocol);
  ERR_clear_error();
  SSL_free(ssl);
  ::close(fd);
  if (!o.error.empty()) return o;
  return judge(reply, mustHave);
}

// ---------------------------------------------------------------- a case

struct CaseResult {
  std::string name;
  int clients = 0;
  long ok = 0;
  double seconds = 0;
  std::vector<double> latencyUs;  // of the ok requests
  std::map<std::string, long> errors;

  double perSecond() const { return seconds > 0 ? ok / seconds : 0; }
  double mean() const {
    double s = 0;
    for (double v : latencyUs) s += v;
    return latencyUs.empty() ? 0 : s / latencyUs.size();
  }
  double p99() {
    if (latencyUs.empty()) return 0;
    std::sort(latencyUs.begin(), latencyUs.end());
    size_t i = (latencyUs.size() * 99 + 99) / 100;  // ceil(0.99 n)
    return latencyUs[std::min(i, latencyUs.size()) - 1];
  }
  long errorCount() const {
    long n = 0;
    for (const auto& [k, v] : errors) n += v;
    return n;
  }
};

// Runs `request(client)` from `clients` threads for `seconds` each.
CaseResult runCase(const std::string& name, int clients, double seconds,
                   const std::function<Outcome(int client)>& request) {
  struct PerClient {
    long ok = 0;
    std::vector<double> lat;
    std::map<std::string, long> errors;
    Clock::time_point finished;
  };
  std::vector<PerClient> per(static_cast<size_t>(clients));
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  Clock::time_point start, deadline;
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      PerClient& me = per[static_cast<size_t>(c)];
      me.lat.reserve(100000);
      ++ready;
      while (!go.load()) std::this_thread::yield();
      while (Clock::now() < deadline) {
        Clock::time_point t0 = Clock::now();
        Outcome o = request(c);
        Clock::time_point t1 = Clock::now();
        if (o.ok) {
          ++me.ok;
          me.lat.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        } else {
          ++me.errors[o.error];
        }
      }
      me.finished = Clock::now();
    });
  }
  while (ready.load() < clients) std::this_thread::yield();
  start = Clock::now();
  deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  go = true;
  for (auto& t : threads) t.join();

  CaseResult r;
  r.name = name;
  r.clients = clients;
  Clock::time_point last = start;
  for (PerClient& p : per) {
    r.ok += p.ok;
    r.latencyUs.insert(r.latencyUs.end(), p.lat.begin(), p.lat.end());
    for (const auto& [k, v] : p.errors) r.errors[k] += v;
    last = std::max(last, p.finished);
  }
  r.seconds = std::chrono::duration<double>(last - start).count();
  return r;
}

void printRow(CaseResult& r) {
  printf("%-12s %7d %9ld %10.0f %10.0f %10.0f %7ld\n", r.name.c_str(), r.clients, r.ok, r.perSecond(), r.mean(),
         r.p99(), r.errorCount());
  fflush(stdout);
}

// ---------------------------------------------------------------- the rig

// The scratch home, the back end, the server and its loop.
class Rig {
 public:
  ~Rig() {
    stop();
    removeHome();
  }

  bool start(std::string& err) {
    char tmpl[] = "/tmp/velmor-http-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
      err = "cannot make a scratch directory";
      return false;
    }
    home = tmpl;
    const std::string bundle = home + "/etc/bundles/default";
    if (system(("mkdir -p " + shellQuote(bundle) + " " + shellQuote(home + "/etc/bundles/local") + " " +
                shellQuote(home + "/etc/auth") + " " + shellQuote(home + "/var/log/velmor"))
                   .c_str()) != 0) {
      err = "cannot make the scratch home";
      return false;
    }
    const std::string src = VELMOR_SOURCE_DIR;
    if (!copyFile(src + "/etc/bundles/default/restmap.conf", bundle + "/restmap.conf")) {
      err = "cannot copy " + src + "/etc/bundles/default/restmap.conf";
      return false;
    }
    // The same handler without authentication, to tell its cost apart.
    std::ofstream(home + "/etc/bundles/local/restmap.conf") << "[server:open]\nmatch = ^/server/open\n";
    // The service's own log configuration: its log lands in the home.
    Logger::initialize(src + "/etc/log.cfg", home, true);
    LoaderInfo::getInstance().setHomePath(home);
    if (MainThread::instance() == nullptr) new MainThread();  // lives until exit

    // The one user comes the way a new installation gets its first one.
    std::ofstream(home + "/etc/bundles/local/user-seed.conf")
        << "[seed]\nname = " << kUser << "\npassword = " << kPassword << "\n";
    backend = std::make_shared<AuthenticationManagerVelmor>(Pathname(home + "/etc"));
    userInformation u;
    if (!backend->getUserInfoByName(kUser, u)) {
      err = "the seed file did not make the user";
      return false;
    }
    UserManager::instance();
    UserManager::setAuthManager(backend);
    auth = std::make_unique<HTTPAuthManager>(3600);
    auth->setBackend(backend);
    dispatcher = std::make_unique<HTTPRestDispatcher>(*auth);
    serverInfo = std::make_unique<ServerInfoHandler>("velmor-bench", time(nullptr));
    dispatcher->registerHandler("server", serverInfo.get());
    pages = std::make_unique<PropertyPages>("restmap");
    pages->updateConfigs();
    if (!dispatcher->loadConfig("restmap", pages.get())) {
      err = "the dispatcher found no restmap.conf";
      return false;
    }

    const std::string cert = home + "/etc/auth/bench-cert.pem", key = home + "/etc/auth/bench-key.pem";
    if (!makeCertificate(cert, key)) {
      err = "cannot make the certificate";
      return false;
    }
    setenv("VELMOR_BINDIP", "127.0.0.1", 1);
    HTTPServerConfig cfg;
    cfg.ports = {HTTPServerPort{0, false}, HTTPServerPort{0, true}};
    cfg.certFile = cert;
    cfg.keyFile = key;
    loop = std::make_unique<EventLoopThread>("http-bench-loop");
    loop->start();
    server = std::make_unique<HTTPServer>();
    server->setRequestHandler(dispatcher.get());
    if (!server->init(cfg) || !server->go(loop.get())) {
      err = "the server could not listen";
      return false;
    }
    if (!server->sslEnabled() || !server->portIsSSL(1)) {
      err = "the server did not enable TLS with the certificate";
      return false;
    }
    return true;
  }

  void stop() {
    if (server) server->handleShutdown();
    server.reset();
    if (loop) loop->stop();
    loop.reset();
    UserManager::setAuthManager(nullptr);
    if (dispatcher) dispatcher->registerHandler("server", nullptr);
  }

  // Warnings and errors the service logged, by their text after the category.
  std::map<std::string, long> logComplaints() const {
    std::map<std::string, long> out;
    std::ifstream in(home + "/var/log/velmor/velmord.log");
    std::string line;
    while (std::getline(in, line)) {
      for (const char* level : {" WARN ", " ERROR ", " CRIT ", " FATAL "}) {
        size_t at = line.find(level);
        if (at == std::string::npos) continue;
        std::string rest = line.substr(at + 1);
        rest.erase(std::unique(rest.begin(), rest.end(), [](char a, char b) { return a == ' ' && b == ' '; }),
                   rest.end());
        // Session keys and nonces would make every line its own kind.
        for (size_t i = 0; i + 32 <= rest.size(); ++i)
          if (std::all_of(rest.begin() + i, rest.begin() + i + 32, [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; })) rest.replace(i, 32, "<hex>");
        ++out[rest.substr(0, 160)];
        break;
      }
    }
    return out;
  }

  void removeHome() {
    if (home.empty()) return;
    if (getenv("KEEP") != nullptr && std::string(getenv("KEEP")) == "1") {
      printf("scratch home kept: %s\n", home.c_str());
      home.clear();
      return;
    }
    if (system(("rm -rf " + shellQuote(home)).c_str()) != 0) fprintf(stderr, "cannot remove %s\n", home.c_str());
    home.clear();
  }

  std::string home;
  std::shared_ptr<AuthenticationManagerVelmor> backend;
  std::unique_ptr<HTTPAuthManager> auth;
  std::unique_ptr<HTTPRestDispatcher> dispatcher;
  std::unique_ptr<ServerInfoHandler> serverInfo;
  std::unique_ptr<PropertyPages> pages;
  std::unique_ptr<EventLoopThread> loop;
  std::unique_ptr<HTTPServer> server;
};

std::string loginRequest() {
  std::string body = std::string("username=") + kUser + "&password=" + kPassword;
  for (char& c : body)
    if (c == ' ') c = '+';
  return "POST /services/auth/login HTTP/1.1\r\nHost: 127.0.0.1\r\n"
         "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string getRequest(const std::string& path, const std::string& key = "") {
  std::string r = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!key.empty()) r += "Authorization: Velmor " + key + "\r\n";
  return r + "\r\n";
}

}  // namespace

int main() {
  double seconds = 3;
  if (const char* s = getenv("HTTP_BENCH_SECONDS")) {
    char* end = nullptr;
    seconds = strtod(s, &end);
    if (end == s || *end != '\0' || !(seconds > 0) || seconds > 600) {
      fprintf(stderr, "bench_http: HTTP_BENCH_SECONDS must be a number of seconds above 0 (at most 600), not '%s'\n",
              s);
      return 2;
    }
  }
  std::vector<int> counts;
  {
    const char* s = getenv("HTTP_BENCH_CLIENTS");
    std::istringstream in(s != nullptr ? s : "1 16 64");
    int n;
    while (in >> n) {
      if (n < 1 || n > 1000) break;
      counts.push_back(n);
    }
    if (counts.empty() || !in.eof()) {
      fprintf(stderr, "bench_http: HTTP_BENCH_CLIENTS must be client counts from 1 to 1000, not '%s'\n", s);
      return 2;
    }
  }
  Rig rig;
  std::string err;
  if (!rig.start(err)) {
    fprintf(stderr, "bench_http: %s\n", err.c_str());
    return 1;
  }
  const int plain = rig.server->boundPort(0), tls = rig.server->boundPort(1);

  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
  std::string protocol = "?";
  Outcome probe = tlsRequest(ctx, tls, getRequest("/services"), "<feed", &protocol);
  if (!probe.ok) {
    fprintf(stderr, "bench_http: a first TLS request failed: %s\n", probe.error.c_str());
    return 1;
  }

  printf("HTTP server in process, clients over loopback, a connection per request\n");
  printf("cpus %u, %.1f s per case, %s, server certificate RSA 2048 (%s)\n", std::thread::hardware_concurrency(),
         seconds, OpenSSL_version(OPENSSL_VERSION), protocol.c_str());
  printf("server on 127.0.0.1 port %d (plain) and %d (TLS), home %s\n", plain, tls, rig.home.c_str());
  printf("%-12s %7s %9s %10s %10s %10s %7s\n", "case", "clients", "requests", "req/s", "mean us", "p99 us", "errors");
  fflush(stdout);

  std::vector<CaseResult> all;
  auto settle = [] { std::this_thread::sleep_for(std::chrono::milliseconds(300)); };
  const std::string login = loginRequest();
  for (int n : counts) {
    all.push_back(runCase("login", n, seconds, [&](int) { return plainRequest(plain, login, "<sessionKey>"); }));
    printRow(all.back());
    settle();
  }

  printf("(sessions open after the login cases: %zu)\n", rig.auth->sessionCount());
  // A session of its own for every client.
  std::vector<std::string> keys;
  for (int c = 0; c < *std::max_element(counts.begin(), counts.end()); ++c) {
    Str key;
    if (!rig.auth->login(kUser, kPassword, key)) {
      fprintf(stderr, "bench_http: the user could not log in\n");
      return 1;
    }
    keys.push_back(key);
  }
  std::vector<std::string> infoRequests;
  for (const std::string& k : keys) infoRequests.push_back(getRequest("/services/server/info", k));
  const std::string userTag = std::string("<user>") + kUser + "</user>";
  std::map<int, double> authMean, openMean, listMean;
  for (int n : counts) {
    all.push_back(runCase("info+auth", n, seconds, [&](int c) {
      return plainRequest(plain, infoRequests[static_cast<size_t>(c)], userTag);
    }));
    authMean[n] = all.back().mean();
    printRow(all.back());
    settle();
  }
  const std::string open = getRequest("/services/server/open");
  for (int n : counts) {
    all.push_back(runCase("info-noauth", n, seconds, [&](int) { return plainRequest(plain, open, "<user></user>"); }));
    openMean[n] = all.back().mean();
    printRow(all.back());
    settle();
  }
  const std::string list = getRequest("/services");
  for (int n : counts) {
    all.push_back(runCase("list", n, seconds, [&](int) { return plainRequest(plain, list, "<feed"); }));
    listMean[n] = all.back().mean();
    printRow(all.back());
    settle();
  }
  for (int n : {1, 16}) {
    all.push_back(runCase("tls", n, seconds, [&](int) { return tlsRequest(ctx, tls, list, "<feed"); }));
    printRow(all.back());
    settle();
  }

  printf("authentication per request (mean info+auth - mean list):");
  for (int n : counts) printf("  %d client%s %.0f us", n, n == 1 ? "" : "s", authMean[n] - listMean[n]);
  printf("\n");
  printf("authentication per request (mean info+auth - mean info-noauth):");
  for (int n : counts) printf("  %d client%s %.0f us", n, n == 1 ? "" : "s", authMean[n] - openMean[n]);
  printf("\n");
  bool anyErrors = false;
  for (const CaseResult& r : all)
    for (const auto& [kind, count] : r.errors) {
      if (!anyErrors) printf("errors:\n");
      anyErrors = true;
      printf("  %-10s %3d clients: %ld x %s\n", r.name.c_str(), r.clients, count, kind.c_str());
    }
  if (!anyErrors) printf("errors: none\n");

  SSL_CTX_free(ctx);
  rig.stop();
  std::map<std::string, long> complaints = rig.logComplaints();
  printf("warnings and errors in the service log: %s\n", complaints.empty() ? "none" : "");
  for (const auto& [text, count] : complaints) printf("  %ld x %s\n", count, text.c_str());
  rig.removeHome();
  return anyErrors ? 3 : 0;
}
