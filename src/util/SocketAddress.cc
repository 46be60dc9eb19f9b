#include "util/SocketAddress.h"

#include <arpa/inet.h>

#include <cstring>

SocketAddress SocketAddress::ipv4Loopback(uint16_t port) {
  SocketAddress a;
  a.setNumeric("127.0.0.1", port);
  return a;
}

SocketAddress SocketAddress::ipv4Any(uint16_t port) {
  SocketAddress a;
  a.setNumeric("0.0.0.0", port);
  return a;
}

bool SocketAddress::setNumeric(const char* host, uint16_t port) {
  std::memset(&_addr, 0, sizeof _addr);
  auto* v4 = reinterpret_cast<sockaddr_in*>(&_addr);
  if (inet_pton(AF_INET, host, &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    _len = sizeof(sockaddr_in);
    return true;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&_addr);
  if (inet_pton(AF_INET6, host, &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    _len = sizeof(sockaddr_in6);
    return true;
  }
  _len = 0;
  return false;
}

uint16_t SocketAddress::port() const {
  if (_addr.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in*>(&_addr)->sin_port);
  if (_addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&_addr)->sin6_port);
  return 0;
}

Str SocketAddress::describe() const {
  char buf[INET6_ADDRSTRLEN] = "?";
  if (_addr.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&_addr)->sin_addr, buf, sizeof buf);
    return Str::fromFormat("%s:%u", buf, port());
  }
  if (_addr.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&_addr)->sin6_addr, buf, sizeof buf);
    return Str::fromFormat("[%s]:%u", buf, port());
  }
  return Str("?");
}
