#include "protocol/ingest_contexts_map.h"

#include <cassert>
#include <set>

#include "net/network_connection.h"
#include "protocol/network_command.h"

IngestContextsMap::IngestContextsMap(const Log& baseLog) : log(baseLog) {}

uint32_t IngestContextsMap::registerContext(const LogEventSourceConfiguration& config) {
  // Only the token makes a context: a second source with the same token shares the first one's
  // settings, whatever its own say.
  for (const LogEventSourceConfiguration& existing : contexts) {
    if (existing.writeToken == config.writeToken) return existing.context;
  }
  const uint32_t context = static_cast<uint32_t>(contexts.size());
  contexts.push_back(config);
  contexts.back().context = context;
  // Every connection's bit vector holds one bit per context; each known connection is asked for
  // the new context at once, whether or not it is up yet.
  for (auto& entry : state) {
    // The check's words are fixed and call the entry's bit vector `state`, like the map that
    // holds it: the one shadowing that the build lets pass.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
    std::vector<bool>& state = entry.second;
#pragma GCC diagnostic pop
    state.push_back(false);
    assert(state.size() == context + 1);
    entry.first->send(CmdRegisterIngestContext{config.writeToken, context});
  }
  return context;
}

void IngestContextsMap::addConnection(NetworkConnection* con) {
  // A new object at the address of a dead one keeps the old entry, bits included: entries are
  // never removed, so there is nothing to tell the two apart by.
  state.try_emplace(con, contexts.size(), false);
  for (const LogEventSourceConfiguration& config : contexts) {
    con->send(CmdRegisterIngestContext{config.writeToken, config.context});
  }
}

bool IngestContextsMap::isContextReady(uint32_t context, NetworkConnection* con) {
  const std::vector<bool>& bits = state[con];
  return context < bits.size() && bits[context];
}

void IngestContextsMap::onContextRegistered(NetworkConnection* con,
                                            const CmdIngestContextRegistered& cmd) {
  if (!cmd.error.empty()) {
    error(log) << "Ingester context / write token registration failed: " << cmd.error << std::endl;
    return;
  }
  // An id the agent never gave out throws here, and nothing catches it.
  const LogEventSourceConfiguration& config = contexts.at(cmd.context);
  con->send(CmdIngestConfig{cmd.context,
                            {{ENABLE_ACK, config.enableAck ? 1 : 0},
                             {TRUNCATE_TIMESTAMP, config.truncateTimestamp ? 1 : 0},
                             {TIMESTAMP_DIVIDER, config.timestampDivider}},
                            {}});
}

void IngestContextsMap::onConfigAck(NetworkConnection* con, const CmdIngestConfigAck& cmd) {
  const std::set<std::string> requested{ENABLE_ACK, TRUNCATE_TIMESTAMP, TIMESTAMP_DIVIDER};
  const std::set<std::string> acknowledged(cmd.options.begin(), cmd.options.end());
  bool missing = false;
  for (const std::string& name : requested) {
    if (acknowledged.count(name)) continue;
    error(log) << "Ingester context configuration failed. Ingester did not acknowledge option "
               << name << "." << std::endl;
    missing = true;
  }
  bool unasked = false;
  for (const std::string& name : acknowledged) {
    if (requested.count(name)) continue;
    error(log) << "Ingester context configuration failed. Ingester replied with not requested "
                  "config option "
               << name << "." << std::endl;
    unasked = true;
  }
  if (unasked || missing) return;
  // Both accesses are checked: an unknown connection or context id throws, uncaught.
  state.at(con).at(cmd.context) = true;
}
