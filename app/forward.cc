#include "app/forward.h"

#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/forwarding.h"
#include "app/ingester_connection.h"
#include "app/name_resolution.h"
#include "app/program.h"
#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/connection_info.h"
#include "protocol/ingest_contexts_map.h"
#include "sources/log_event_source.h"
#include "sources/stream_log_event_source.h"
#include "sources/tail_log_event_source.h"
#include "sources/timestamp_extractor.h"
#include "support/exit_orderly.h"

namespace {

constexpr uint64_t SECOND = 1000000000;

// The reader's buffer holds 65526 bytes less the prepended text, and it reads 512 bytes or more
// at a time: a longer text leaves a buffer that is never read into.
constexpr size_t MAXIMUM_PREPEND_LENGTH = 65526 - 512;

void printForwardUsage() {
  std::cerr << "Usage: drover forward [<source spec> ...] [to <connection>]" << std::endl
            << std::endl
            << "where <source spec> can be:" << std::endl
            << "  tail <filename> <write_token>   - tail this filename for new lines (normal logs)"
            << std::endl
            << "  stream <filename> <write_token> - stream lines from this file (old logs, pipes, fifos)"
            << std::endl
            << std::endl
            << "... and can be further configured via:" << std::endl
            << "  timestamps <time-source> - configure when events from this source appear to happen"
            << std::endl
            << "  prepend <string>         - prepend a fixed string to every event from this source"
            << std::endl
            << std::endl
            << "and <time-source> can be:" << std::endl
            << "  system    - the default: a log line is recorded when it is read from the log source"
            << std::endl
            << "  first-iso - the first YYYY-MM-DD HH:MM:SS per line is used as the event time"
            << std::endl
            << "              a literal T between date and time and fractional seconds are supported"
            << std::endl
            << std::endl
            << "and <connection> can be:" << std::endl
            << "  <hostname>:<port>" << std::endl;
}

}  // namespace

bool parseForwardArguments(const Log& log, int argc, char** argv, ForwardSources& sources,
                           std::vector<ConnectionString>& connectionStrings) {
  int i = 1;
  while (const std::optional<std::string> word = argumentAt(argc, argv, i)) {
    if (*word == "tail" || *word == "stream") {
      const std::optional<std::string> filename = argumentAt(argc, argv, i + 1);
      if (!filename) {
        error(log) << "Expected filename after '" << *word << "' argument." << std::endl;
        return false;
      }
      const std::optional<std::string> writeToken = argumentAt(argc, argv, i + 2);
      if (!writeToken) {
        error(log) << "Expected write token after filename." << std::endl;
        return false;
      }
      // The token travels with a one-byte length.
      if (writeToken->size() > 255) {
        error(log) << "Write token is impossibly long." << std::endl;
        return false;
      }
      if (*word == "tail") {
        sources.push_back(std::make_unique<TailLogEventSource>(log, *filename, *writeToken));
      } else {
        sources.push_back(std::make_unique<StreamLogEventSource>(log, *filename, *writeToken));
      }
      i += 3;
    } else if (*word == "timestamps") {
      const std::optional<std::string> value = argumentAt(argc, argv, i + 1);
      if (!value) {
        error(log) << "Expected timestamp source specification after 'timestamps' argument."
                   << std::endl;
        return false;
      }
      TimeSource timeSource = makeTimeSource(*value);
      if (!timeSource.error.empty()) {
        error(log) << "Invalid timestamps argument: " << timeSource.error << std::endl;
        return false;
      }
      if (sources.empty()) {
        error(log) << "'timestamps' argument needs a 'source' before it to apply to." << std::endl;
        return false;
      }
      sources.back()->setTimestampExtractor(std::move(*timeSource.extractor));
      i += 2;
    } else if (*word == "prepend") {
      std::optional<std::string> value = argumentAt(argc, argv, i + 1);
      if (!value) {
        error(log) << "Expected string to prepend after 'prepend' argument." << std::endl;
        return false;
      }
      if (sources.empty()) {
        error(log) << "'prepend' argument needs a 'source' before it to apply to." << std::endl;
        return false;
      }
      if (value->size() > MAXIMUM_PREPEND_LENGTH) {
        error(log) << "Prepend text is impossibly long." << std::endl;
        return false;
      }
      sources.back()->setPrepend(std::move(*value));
      i += 2;
    } else if (*word == "to") {
      const std::optional<std::string> value = argumentAt(argc, argv, i + 1);
      if (!value) {
        error(log) << "Expected connection string after 'to' argument." << std::endl;
        return false;
      }
      std::optional<ConnectionString> target = parseConnectionString(log, *value);
      if (!target) {
        error(log) << "Invalid connection string: " << *value << std::endl;
        return false;
      }
      connectionStrings.push_back(std::move(*target));
      i += 2;
    } else if (*word == "help") {
      printForwardUsage();
      return false;
    } else if (*word == "timesource" || *word == "time-source") {
      error(log) << "Unknown argument: " << *word << ", did you mean 'timestamps'?" << std::endl;
      return false;
    } else {
      printForwardUsage();
      error(log) << "Unknown argument: " << *word << std::endl;
      return false;
    }
  }

  if (connectionStrings.empty()) {
    error(log) << "At least one log target must be specified via 'to' argument." << std::endl;
    return false;
  }
  if (sources.empty()) {
    error(log) << "At least one log source must be specified." << std::endl;
    return false;
  }
  for (const auto& source : sources) {
    if (!source->isAvailable()) {
      error(log) << "Refusing startup: At least one log source is unavailable, i.e. likely "
                    "misconfigured."
                 << std::endl;
      return false;
    }
  }
  return true;
}

std::optional<ConnectionString> parseConnectionString(const Log& log, const std::string& text) {
  const std::string::size_type colon = text.rfind(':');
  if (colon == std::string::npos) {
    error(log) << "Connection string has no : character: " << text << std::endl;
    return std::nullopt;
  }
  std::string host = text.substr(0, colon);
  std::string port = text.substr(colon + 1);
  // A port text without a leading number (or too large for an int) throws here, and nothing
  // catches it: only trailing garbage is a reported error.
  size_t used = 0;
  const int value = std::stoi(port, &used, 10);
  if (used != port.size()) {
    error(log) << "Port number was not numeric: " << port << std::endl;
    return std::nullopt;
  }
  if (value < 1 || value > 65535) {
    error(log) << "Port number was outside bounds: " << value << std::endl;
    return std::nullopt;
  }
  return ConnectionString(std::move(host), std::move(port));
}

int forward(const Log& callerLog, int argc, char** argv) {
  const Log log = callerLog.with("application", "forward");
  EventLoop loop(log);
  ForwardSources sources;
  std::vector<ConnectionString> connectionStrings;
  IngesterConnections connections;
  std::shared_mutex resolvedMutex;
  EventQueue events;

  if (!parseForwardArguments(log, argc, argv, sources, connectionStrings)) return 1;

  NetworkConnection::Initialize(log, false, true);

  IngestContextsMap contexts(log);

  // Before any timer or thread exists, so no lock is needed yet.
  ResolvedAddresses resolved = resolveConnectionStrings(log, connectionStrings);

  for (const auto& entry : resolved) {
    if (const ConnectionError* failure = std::get_if<ConnectionError>(&entry)) {
      error(log) << "Could not resolve " << failure->host << ":" << failure->port << ": "
                 << failure->message << std::endl;
      return 1;
    }
    const ConnectionInfo& address = std::get<ConnectionInfo>(entry);
    connections.push_back(std::make_unique<IngesterConnection>(log, address));
    setupForwardConnection(connections.back(), events, loop, contexts, log.with("peer", address));
  }

  const EventSink sink = [&](uint32_t context, uint64_t timestamp, const EphemeralLogEvent* batch,
                             uint32_t count) {
    return offerBatch(events, connections, contexts, context, timestamp, batch, count);
  };

  for (const auto& source : sources) {
    source->setIngestContextsMap(contexts);
    source->setEventCallback(sink);
    source->registerAt(loop);
  }

  loop.addInterval(SECOND, [&] {
    drainEvents(events, connections, contexts);
    return true;
  });
  loop.addInterval(10 * SECOND, [&] {
    Log counters = log.with("level", "INFO")
                       .with("eventsForwarded", eventsForwarded)
                       .with("bufferFull", bufferFull)
                       .with("loopBusy", loopBusy)
                       .with("networkConnects", networkConnects);
    counters << std::endl;
    return true;
  });
  loop.setSpinHandler([] { ++loopBusy; });
  char connectionCheckKey = 0;  // its address keys the check, so that it can be removed
  loop.addInterval(5 * SECOND, &connectionCheckKey, [&] {
    checkConnections(log, connections, events, loop, contexts, resolvedMutex, resolved);
    return true;
  });

  Log resolverLog(log);
  std::thread resolverThread(resolverThreadMain, std::ref(keepRunning), std::ref(resolverLog),
                             std::ref(connectionStrings), std::ref(resolved), std::ref(resolvedMutex));

  loop.addInterval(50000000, [&] {
    for (const auto& source : sources) {
      if (!source->isCompleted()) return true;
    }
    if (!events.empty()) return true;
    keepRunning.exchange(false);
    return true;
  });

  loop.runWhile(shouldKeepRunning);

  loop.removeInterval(&connectionCheckKey);
  info(log) << "All sources completed. Waiting for sending connections to close." << std::endl;

  int remaining = static_cast<int>(connections.size());
  for (const auto& con : connections) {
    con->finish();
    con->setFinishedHandler([&remaining] { --remaining; });
  }
  loop.runWhile([&remaining] { return remaining != 0; });
  resolverThread.join();
  return 0;
}
