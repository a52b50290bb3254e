// The command line of drover-sink: where it listens, where events go, when it stops, and the
// faults it injects on request. Internal to sink/.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

enum class OutputFormat { JSON, RAW };

struct SinkOptions {
  /// Numeric address to bind; "127.0.0.1:9000" unless --listen says otherwise.
  sockaddr_storage listenAddress{};
  socklen_t listenAddressLength = 0;
  bool printPort = false;
  bool help = false;
  std::string outPath;  // empty: standard output
  OutputFormat format = OutputFormat::JSON;
  /// JSON lines also carry "received": the wall-clock nanoseconds at which the batch was taken.
  bool receivedTime = false;
  uint64_t reportIntervalNanos = 10'000'000'000ull;
  std::optional<uint64_t> exitAfterEvents;
  std::optional<uint64_t> exitAfterIdleNanos;
  /// A connection whose TLS handshake takes longer is closed: it holds a descriptor.
  uint64_t handshakeTimeoutNanos = 10'000'000'000ull;

  // Faults. A count N means "once N batches of the connection have been taken"; stallAfter
  // counts the batches of all connections. Each fault happens at most once per connection.
  std::optional<std::string> refuseToken;
  std::vector<std::string> configOmit;
  std::vector<std::string> configExtra;
  std::optional<uint64_t> errorAfter;
  std::optional<uint64_t> closeAfter;
  bool abrupt = false;
  bool noAck = false;
  std::optional<uint64_t> stallAfter;
  uint64_t stallNanos = 0;
  std::optional<uint64_t> sendUnacceptedAfter;
  /// Answer every registration for a context id the agent never gave out.
  bool unknownContext = false;
  /// Only the first this many connections misbehave; the rest behave, so a run can finish.
  std::optional<uint64_t> faultyConnections;
};

/// A refused command line: one sentence that names the offending flag.
struct UsageError {
  std::string message;
};

/// Reads argv[1..]; never touches the network or the file system.
std::variant<SinkOptions, UsageError> parseSinkOptions(int argc, char** argv);

/// "HOST:PORT" or "[HOST6]:PORT" with a numeric host; false for anything else.
bool parseListenAddress(const std::string& text, sockaddr_storage& address, socklen_t& length);

void printSinkUsage(std::ostream& out);
