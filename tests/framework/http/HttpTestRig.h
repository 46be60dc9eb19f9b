// Helpers shared by the server-side HTTP tests: a server on 127.0.0.1 on a
// free port, run by its own event loop thread and stopped (handler threads
// included) when the rig goes, even when a test fails; a handler that echoes
// what it was given; a raw socket client and a runner for the curl and
// openssl commands, all bounded in time; a scratch directory with a
// self-signed certificate.
//
// Header only. The rig is built and destroyed on the test's thread.
#pragma once

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPServer.h"
#include "framework/http/MHttpRequestHandler.h"
#include "util/EventLoopThread.h"
#include "util/MainThread.h"

namespace httptest {

inline void ensureMainThread() {
  if (MainThread::instance() == nullptr) new MainThread();
}

// "METHOD path\n" then "get:k=v\n", "post:k=v\n", "body=<body>". A path of
// "/block" waits until release() (bounded); "/throw" throws.
class EchoHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* r) override {
    ++calls;
    if (r->path() == "/block") {
      std::unique_lock<std::mutex> l(_m);
      ++blocked;
      _cv.notify_all();
      _cv.wait_for(l, std::chrono::seconds(20), [this] { return _released; });
    }
    if (r->path() == "/throw") throw std::runtime_error("handler failure");
    if (r->path() == "/urlbase" && server != nullptr) {
      Str base;
      server->getUrlBase(r, base);
      return HTTPReply::createReply(200, base, "text/plain", false);
    }
    std::string b = r->method() + " " + r->path() + (conn._ssl ? " ssl" : "") + "\n";
    for (const auto& [k, vs] : r->getParams())
      for (const Str& v : vs) b += "get:" + k + "=" + v + "\n";
    for (const auto& [k, vs] : r->postParams())
      for (const Str& v : vs) b += "post:" + k + "=" + v + "\n";
    b += "body=" + r->body();
    return HTTPReply::createReply(200, b, "text/plain", false);
  }
  // Waits (bounded) until n requests sit in /block.
  bool waitBlocked(int n) {
    std::unique_lock<std::mutex> l(_m);
    return _cv.wait_for(l, std::chrono::seconds(20), [&] { return blocked >= n; });
  }
  void release() {
    std::lock_guard<std::mutex> l(_m);
    _released = true;
    _cv.notify_all();
  }
  std::atomic<int> calls{0};
  HTTPServer* server = nullptr;

 private:
  std::mutex _m;
  std::condition_variable _cv;
  int blocked = 0;
  bool _released = false;
};

class Rig {
  // Made first: threads need a MainThread.
  struct MainThreadFirst {
    MainThreadFirst() { ensureMainThread(); }
  } _first;

 public:
  Rig() : loop("http-test-loop") {
    setenv("VELMOR_BINDIP", "127.0.0.1", 1);
    loop.start();
  }
  ~Rig() {
    handler.release();
    if (server) server->handleShutdown();  // waits for the handler threads
    server.reset();
    loop.stop();
  }
  // Starts the server with cfg (ports default to one plain free port).
  bool start(HTTPServerConfig cfg = HTTPServerConfig()) {
    if (cfg.ports.empty()) cfg.ports.push_back({0, false});
    server = std::make_unique<HTTPServer>();
    server->setRequestHandler(&handler);
    handler.server = server.get();
    return server->init(cfg) && server->go(&loop);
  }
  int port(size_t i = 0) const { return server->boundPort(i); }

  EventLoopThread loop;
  EchoHandler handler;
  std::unique_ptr<HTTPServer> server;
};

// Connects to 127.0.0.1:port; -1 on failure.
inline int connectLoopback(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  SocketAddress a = SocketAddress::ipv4Loopback(static_cast<uint16_t>(port));
  if (fd < 0 || ::connect(fd, a.get(), a.length()) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  return fd;
}

// Reads until EOF, at most `ms` in all; `eof` says whether EOF came.
inline std::string readAll(int fd, int ms, bool* eof = nullptr) {
  std::string out;
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  if (eof) *eof = false;
  for (;;) {
    int left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count());
    if (left <= 0) return out;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, left) <= 0) continue;
    char buf[8192];
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) {
      if (eof) *eof = true;
      return out;
    }
    out.append(buf, static_cast<size_t>(n));
  }
}

// Sends `request` on a new connection and returns all that comes back
// before the server closes (bounded: 10 s).
inline std::string exchange(int port, const std::string& request, bool halfClose = false) {
  int fd = connectLoopback(port);
  if (fd < 0) return "<no connection>";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    ::close(fd);
    return "<send failed>";
  }
  if (halfClose) ::shutdown(fd, SHUT_WR);
  std::string out = readAll(fd, 10000);
  ::close(fd);
  return out;
}

// Runs a shell command, giving its standard output.
inline std::string run(const std::string& cmd, int* status = nullptr) {
  std::string out;
  FILE* f = ::popen(cmd.c_str(), "r");
  if (f == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  int st = ::pclose(f);
  if (status) *status = st;
  return out;
}

// A scratch directory removed with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/velmor-http-test-XXXXXX";
    if (::mkdtemp(tmpl) != nullptr) path = tmpl;
  }
  ~ScratchDir() {
    if (!path.empty()) run("rm -rf '" + path + "'");
  }
  // A self-signed certificate and key (cert.pem, key.pem); with a password
  // the key is encrypted. False when the openssl command failed.
  bool makeCertificate(const std::string& password = "") {
    std::string cmd = "openssl req -x509 -newkey rsa:2048 -subj /CN=localhost -days 2 -keyout '" + path +
                      "/key.pem' -out '" + path + "/cert.pem' " +
                      (password.empty() ? "-nodes" : "-passout pass:" + password) + " >/dev/null 2>&1";
    int st = 0;
    run(cmd, &st);
    return st == 0;
  }
  std::string path;
};

inline bool contains(const std::string& hay, const std::string& needle) {
  return hay.find(needle) != std::string::npos;
}

}  // namespace httptest
