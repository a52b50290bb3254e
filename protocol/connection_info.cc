#include "protocol/connection_info.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cassert>
#include <cstdio>
#include <cstring>

ConnectionString::ConnectionString(const sockaddr_in& address) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&address.sin_addr);
  for (size_t i = 0; i < sizeof(address.sin_addr); ++i) {
    if (i > 0) host += '.';
    host += std::to_string(bytes[i]);
  }
  port = std::to_string(ntohs(address.sin_port));
}

ConnectionString::ConnectionString(const sockaddr_in6& address) {
  // One colon per byte and no zero compression: the form other parts of the cluster print.
  const auto* bytes = reinterpret_cast<const uint8_t*>(&address.sin6_addr);
  for (size_t i = 0; i < sizeof(address.sin6_addr); ++i) {
    char pair[3];
    snprintf(pair, sizeof(pair), "%02x", bytes[i]);
    if (i > 0) host += ':';
    host += pair;
  }
  port = std::to_string(ntohs(address.sin6_port));
}

ConnectionInfo::ConnectionInfo() {
  memset(&data, 0, sizeof(data));
  memset(address, 0, sizeof(address));
  sockaddr_in any{};
  any.sin_family = AF_INET;
  memcpy(address, &any, sizeof(any));
  data.ai_family = AF_INET;
  data.ai_socktype = SOCK_STREAM;
  data.ai_protocol = IPPROTO_TCP;
  data.ai_addrlen = sizeof(sockaddr_in);
  data.ai_addr = reinterpret_cast<sockaddr*>(address);
  connectionString = ConnectionString(any);
}

ConnectionInfo::ConnectionInfo(const addrinfo& entry, const ConnectionString& text) {
  memset(&data, 0, sizeof(data));
  memset(address, 0, sizeof(address));
  data.ai_flags = entry.ai_flags;
  data.ai_family = entry.ai_family;
  data.ai_socktype = entry.ai_socktype;
  data.ai_protocol = entry.ai_protocol;
  data.ai_addrlen = entry.ai_addrlen;
  assert(data.ai_addrlen <= sizeof(sockaddr_in6));
  if (data.ai_addrlen > 0) memcpy(address, entry.ai_addr, data.ai_addrlen);
  data.ai_addr = reinterpret_cast<sockaddr*>(address);
  connectionString = text;
}

ConnectionInfo::ConnectionInfo(const ConnectionInfo& other) {
  copyFrom(other);
}

ConnectionInfo& ConnectionInfo::operator=(const ConnectionInfo& other) {
  if (this != &other) copyFrom(other);
  return *this;
}

void ConnectionInfo::copyFrom(const ConnectionInfo& other) {
  connectionString = other.connectionString;
  memset(&data, 0, sizeof(data));
  memset(address, 0, sizeof(address));
  data.ai_flags = other.data.ai_flags;
  data.ai_family = other.data.ai_family;
  data.ai_socktype = other.data.ai_socktype;
  data.ai_protocol = other.data.ai_protocol;
  data.ai_addrlen = other.data.ai_addrlen;
  assert(data.ai_addrlen <= sizeof(sockaddr_in6));
  if (data.ai_addrlen > 0) memcpy(address, other.data.ai_addr, data.ai_addrlen);
  // Never the source's storage: the copy has to outlive it.
  data.ai_addr = reinterpret_cast<sockaddr*>(address);
  data.ai_canonname = nullptr;
  data.ai_next = nullptr;
}

bool ConnectionInfo::operator==(const ConnectionInfo& other) const {
  return data.ai_family == other.data.ai_family && data.ai_protocol == other.data.ai_protocol &&
         data.ai_addrlen == other.data.ai_addrlen &&
         memcmp(data.ai_addr, other.data.ai_addr, data.ai_addrlen) == 0;
}

std::ostream& operator<<(std::ostream& out, const ConnectionInfo& info) {
  return out << info.connectionString.host << ':' << info.connectionString.port;
}

SerializedConnectionInfo::SerializedConnectionInfo(const std::string& str) : std::string(str) {
  assert(str.size() > 0);
  if (front() == 4) {
    assert(size() == 1 + sizeof(sockaddr_in));
  } else if (front() == 6) {
    assert(size() == 1 + sizeof(sockaddr_in6));
  } else {
    assert(false);
  }
}
