// Endpoint addresses: the text the user wrote (ConnectionString), one resolved address with that
// text attached (ConnectionInfo), a failed resolution (ConnectionError) and the wire encoding of
// an address kept as bytes (SerializedConnectionInfo). Public header; app and net include it.
//
// All four are plain values without locks. A ConnectionInfo owns its socket address, so it can be
// copied out of a resolver's list and outlive it.
#pragma once

#include <netdb.h>
#include <netinet/in.h>

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>

struct ConnectionString {
  std::string host;
  std::string port;  // kept as text: it goes to the resolver as a service name

  ConnectionString() = default;
  ConnectionString(std::string hostText, std::string portText)
      : host(std::move(hostText)), port(std::move(portText)) {}
  /// Dotted decimal host, decimal port.
  explicit ConnectionString(const sockaddr_in& address);
  /// All sixteen address bytes as two-digit lower-case hex joined by ":" (47 characters, never
  /// shortened), decimal port.
  explicit ConnectionString(const sockaddr_in6& address);

  /// By host, then port; byte-wise, a prefix first.
  auto operator<=>(const ConnectionString&) const = default;
  bool operator==(const ConnectionString&) const = default;
};

/// One resolved stream-socket address. Invariants: `data.ai_addr` points into this object's own
/// storage, `ai_canonname` and `ai_next` are null, `ai_addrlen` <= sizeof(sockaddr_in6).
class ConnectionInfo {
 public:
  /// The IPv4 address 0.0.0.0, port 0: what a failed wire read yields.
  ConnectionInfo();
  /// Copies one entry of a resolver's list (never the list behind it) and attaches `text`.
  ConnectionInfo(const addrinfo& entry, const ConnectionString& text);
  ConnectionInfo(const ConnectionInfo& other);
  ConnectionInfo& operator=(const ConnectionInfo& other);

  /// Same family, protocol, address length and address bytes; the texts don't count.
  bool operator==(const ConnectionInfo& other) const;

  addrinfo data;

 private:
  void copyFrom(const ConnectionInfo& other);

  alignas(sockaddr_in6) uint8_t address[sizeof(sockaddr_in6)];

 public:
  ConnectionString connectionString;
};

/// host ":" port of the connection string, never the resolved address, without brackets.
std::ostream& operator<<(std::ostream& out, const ConnectionInfo& info);

struct ConnectionError {
  std::string host;
  std::string port;
  std::string message;  // the resolver's text
};

/// The wire encoding of one ConnectionInfo: tag 4 and a sockaddr_in, or tag 6 and a sockaddr_in6.
/// Made by the program itself, so a malformed one is a program error.
class SerializedConnectionInfo : public std::string {
 public:
  explicit SerializedConnectionInfo(const std::string& str);
};
