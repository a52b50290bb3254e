// Turning connection strings into addresses: once at start-up, then every five minutes on a thread
// of its own, so that the event loop never waits for a name server.
#pragma once

#include <atomic>
#include <shared_mutex>
#include <variant>
#include <vector>

#include "protocol/connection_info.h"
#include "support/log.h"

/// One entry per resolved address, or one ConnectionError per failed target, in target order.
using ResolvedAddresses = std::vector<std::variant<ConnectionInfo, ConnectionError>>;

/// One blocking pass over all targets, looked up in parallel.
ResolvedAddresses resolveConnectionStrings(const Log& log, const std::vector<ConnectionString>& strings);

/// The resolver thread: every five minutes a fresh pass replaces `resolved` whole under the
/// exclusive lock. Returns within 50 ms of `keepRunning` falling, unless a pass is under way.
void resolverThreadMain(std::atomic<bool>& keepRunning, Log& log, std::vector<ConnectionString>& strings,
                        ResolvedAddresses& resolved, std::shared_mutex& mutex);
