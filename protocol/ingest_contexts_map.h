// The ingest contexts of one agent run: one per distinct write token, and per connection which of
// them have finished their negotiation. Public header; sources register here, app asks it.
//
// Main thread only. Entries are keyed by connection address and never removed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/log.h"

class NetworkConnection;
struct CmdIngestContextRegistered;
struct CmdIngestConfigAck;

/// The option names negotiated for every context.
inline const std::string ENABLE_ACK = "enable_ack";
inline const std::string TRUNCATE_TIMESTAMP = "truncate_timestamp";
inline const std::string TIMESTAMP_DIVIDER = "timestamp_divider";

/// What a source contributes: its write token and the options its context is configured with.
struct LogEventSourceConfiguration {
  bool enableAck = false;
  bool truncateTimestamp = true;
  uint64_t timestampDivider = 1000000;
  std::string writeToken;
  uint32_t context = 0xFFFFFFFF;
};

class IngestContextsMap {
 public:
  explicit IngestContextsMap(const Log& log);

  /// The id of `config`'s write token, registering it (and telling every known connection) if new.
  uint32_t registerContext(const LogEventSourceConfiguration& config);
  /// Negotiates every context anew on `con`; the last step of setting a connection up.
  void addConnection(NetworkConnection* con);
  /// Whether `context` has finished its negotiation on `con`. Unknown connections get an entry.
  bool isContextReady(uint32_t context, NetworkConnection* con);
  void onContextRegistered(NetworkConnection* con, const CmdIngestContextRegistered& cmd);
  void onConfigAck(NetworkConnection* con, const CmdIngestConfigAck& cmd);

  const std::vector<LogEventSourceConfiguration>& configurations() const { return contexts; }

 private:
  Log log;
  std::map<NetworkConnection*, std::vector<bool>> state;
  std::vector<LogEventSourceConfiguration> contexts;
};
