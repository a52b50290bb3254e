// Loopback addresses and listeners for tests and benchmarks that open real connections.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "protocol/connection_info.h"

/// An IPv4 loopback address whose text is the given host and the port.
inline ConnectionInfo loopbackInfo(uint16_t port, const std::string& host = "127.0.0.1") {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addrinfo entry{};
  entry.ai_family = AF_INET;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addrlen = sizeof(address);
  entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
  return ConnectionInfo(entry, ConnectionString(host, std::to_string(port)));
}

/// A listening loopback socket on a free port; -1 if it could not be made.
inline int listenOnLoopback(uint16_t* port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 8) != 0) return -1;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  *port = ntohs(address.sin_port);
  return fd;
}
