// SocketAddress: an IPv4 or IPv6 socket address (sockaddr_storage + length).
//
// A plain value; any thread may use its own copies.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "util/Str.h"

class SocketAddress {
 public:
  SocketAddress() = default;
  // The IPv4 loopback or any address with a port (host order).
  static SocketAddress ipv4Loopback(uint16_t port);
  static SocketAddress ipv4Any(uint16_t port);
  // Parses a numeric IPv4 or IPv6 address; false on anything else.
  bool setNumeric(const char* host, uint16_t port);

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&_addr); }
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&_addr); }
  socklen_t length() const { return _len; }
  socklen_t* lengthPtr() { return &_len; }
  void setLength(socklen_t len) { _len = len; }
  int family() const { return _addr.ss_family; }
  // Port in host order, 0 when unknown.
  uint16_t port() const;
  // "a.b.c.d:port" or "[v6]:port".
  Str describe() const;

 private:
  sockaddr_storage _addr{};
  socklen_t _len = sizeof(sockaddr_storage);
};
