#include "sink/sink_options.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace {

std::optional<uint64_t> parseCount(const std::string& text) {
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [at, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || at != end) return std::nullopt;
  return value;
}

// Seconds may have a fraction, so that scripts and tests can ask for short waits.
std::optional<uint64_t> parseSeconds(const std::string& text) {
  double value = 0;
  const char* end = text.data() + text.size();
  const auto [at, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || at != end || !std::isfinite(value) || value < 0 ||
      value > 1e9) {
    return std::nullopt;
  }
  return static_cast<uint64_t>(std::llround(value * 1e9));
}

std::optional<uint16_t> parsePort(const std::string& text) {
  const std::optional<uint64_t> value = parseCount(text);
  if (!value || *value > 65535) return std::nullopt;
  return static_cast<uint16_t>(*value);
}

}  // namespace

bool parseListenAddress(const std::string& text, sockaddr_storage& address, socklen_t& length) {
  std::string host;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      return false;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  const std::optional<uint16_t> number = parsePort(port);
  if (!number) return false;

  address = sockaddr_storage{};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(*number);
    length = sizeof(sockaddr_in);
    return true;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(*number);
    length = sizeof(sockaddr_in6);
    return true;
  }
  return false;
}

std::variant<SinkOptions, UsageError> parseSinkOptions(int argc, char** argv) {
  SinkOptions options;
  parseListenAddress("127.0.0.1:9000", options.listenAddress, options.listenAddressLength);
  bool stallSecondsGiven = false;

  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    // Every flag but the switches takes exactly one value word.
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    auto missing = [&] { return UsageError{"missing value for " + flag}; };
    auto bad = [&](const std::string& text) {
      return UsageError{"bad value for " + flag + ": \"" + text + "\""};
    };
    auto count = [&](std::optional<uint64_t>& into) -> std::optional<UsageError> {
      const std::optional<std::string> text = value();
      if (!text) return missing();
      into = parseCount(*text);
      if (!into) return bad(*text);
      return std::nullopt;
    };
    auto seconds = [&](uint64_t& into, bool positive) -> std::optional<UsageError> {
      const std::optional<std::string> text = value();
      if (!text) return missing();
      const std::optional<uint64_t> nanos = parseSeconds(*text);
      if (!nanos || (positive && *nanos == 0)) return bad(*text);
      into = *nanos;
      return std::nullopt;
    };
    auto word = [&](std::string& into) -> std::optional<UsageError> {
      const std::optional<std::string> text = value();
      if (!text) return missing();
      into = *text;
      return std::nullopt;
    };

    std::optional<UsageError> failure;
    if (flag == "--help" || flag == "-h") {
      options.help = true;
    } else if (flag == "--listen") {
      const std::optional<std::string> text = value();
      if (!text) {
        failure = missing();
      } else if (!parseListenAddress(*text, options.listenAddress, options.listenAddressLength)) {
        failure = bad(*text);
      }
    } else if (flag == "--print-port") {
      options.printPort = true;
    } else if (flag == "--out") {
      failure = word(options.outPath);
      if (!failure && options.outPath.empty()) failure = bad("");
    } else if (flag == "--format") {
      std::string text;
      failure = word(text);
      if (failure) {
      } else if (text == "json") {
        options.format = OutputFormat::JSON;
      } else if (text == "raw") {
        options.format = OutputFormat::RAW;
      } else {
        failure = bad(text);
      }
    } else if (flag == "--received-time") {
      options.receivedTime = true;
    } else if (flag == "--report-interval") {
      failure = seconds(options.reportIntervalNanos, true);
    } else if (flag == "--exit-after-events") {
      failure = count(options.exitAfterEvents);
    } else if (flag == "--exit-after-idle") {
      uint64_t nanos = 0;
      failure = seconds(nanos, false);
      options.exitAfterIdleNanos = nanos;
    } else if (flag == "--handshake-timeout") {
      failure = seconds(options.handshakeTimeoutNanos, true);
    } else if (flag == "--refuse-token") {
      std::string text;
      failure = word(text);
      options.refuseToken = text;
    } else if (flag == "--config-omit") {
      failure = word(options.configOmit.emplace_back());
    } else if (flag == "--config-extra") {
      failure = word(options.configExtra.emplace_back());
    } else if (flag == "--error-after") {
      failure = count(options.errorAfter);
    } else if (flag == "--close-after") {
      failure = count(options.closeAfter);
    } else if (flag == "--abrupt") {
      options.abrupt = true;
    } else if (flag == "--no-ack") {
      options.noAck = true;
    } else if (flag == "--stall-after") {
      failure = count(options.stallAfter);
    } else if (flag == "--stall-seconds") {
      failure = seconds(options.stallNanos, false);
      stallSecondsGiven = true;
    } else if (flag == "--send-unaccepted-after") {
      failure = count(options.sendUnacceptedAfter);
    } else if (flag == "--answer-unknown-context") {
      options.unknownContext = true;
    } else if (flag == "--faulty-connections") {
      failure = count(options.faultyConnections);
    } else {
      failure = UsageError{"unknown flag " + flag};
    }
    if (failure) return *failure;
  }

  // Flags that only make sense as a pair are refused alone rather than given a silent default.
  if (options.abrupt && !options.closeAfter) return UsageError{"--abrupt needs --close-after"};
  if (options.stallAfter && !stallSecondsGiven) {
    return UsageError{"--stall-after needs --stall-seconds"};
  }
  if (stallSecondsGiven && !options.stallAfter) {
    return UsageError{"--stall-seconds needs --stall-after"};
  }
  return options;
}

void printSinkUsage(std::ostream& out) {
  out << "Usage: drover-sink [options]\n"
         "  A local ingest endpoint: takes TLS connections from drover and writes every event\n"
         "  it receives to standard output, one JSON object per line.\n"
         "\n"
         "  --listen HOST:PORT          numeric address to listen on (127.0.0.1:9000); port 0\n"
         "                              picks a free one\n"
         "  --print-port                write the bound port and a newline to standard error\n"
         "  --out FILE                  write events to FILE instead of standard output\n"
         "  --format json|raw           JSON lines (default) or the events' bytes alone; in JSON\n"
         "                              a byte outside valid UTF-8 is \\uDCXX, which Python's\n"
         "                              surrogateescape turns back into the byte XX:\n"
         "                              json.loads(line)[\"event\"].encode(\"utf-8\",\n"
         "                              \"surrogateescape\")\n"
         "  --received-time             JSON lines also carry \"received\", the wall-clock\n"
         "                              nanoseconds at which the batch was taken\n"
         "  --report-interval SECONDS   period of the intake report on standard error (10)\n"
         "  --exit-after-events N       exit 0 once N events were received and written\n"
         "  --exit-after-idle SECONDS   exit 0 after SECONDS without an event, from the first\n"
         "  --handshake-timeout SECONDS close a connection whose TLS handshake takes longer (10)\n"
         "\n"
         "  Faults, each at most once per connection; N counts the connection's batches:\n"
         "  --refuse-token TOKEN        refuse the registration of TOKEN\n"
         "  --config-omit NAME          leave NAME out of every configuration answer\n"
         "  --config-extra NAME         add NAME to every configuration answer\n"
         "  --error-after N             send an error after N batches\n"
         "  --close-after N [--abrupt]  close after N batches (--abrupt: without a TLS close)\n"
         "  --no-ack                    never acknowledge a batch\n"
         "  --stall-after N --stall-seconds S\n"
         "                              once N batches arrived in all, stop reading S seconds\n"
         "  --send-unaccepted-after N   send a command the agent does not accept after N batches\n"
         "  --answer-unknown-context    answer registrations for a context id never asked for\n"
         "  --faulty-connections K      only the first K connections misbehave (default: all)\n";
}
