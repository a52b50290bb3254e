// The agent's connection to one ingest endpoint: a TLS NetworkConnection that keeps a copy of
// every batch it sent until the ingester acknowledges it. Internal to app/.
//
// Main thread only. A connection object is never reused: a dead one is replaced by a new one for
// the same address, and whatever is left in `unacknowledged` goes back to the shared queue.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "net/network_connection.h"
#include "support/log_event.h"

class IngesterConnection : public NetworkConnection {
 public:
  /// Starts connecting with TLS at once; see NetworkConnection for the failure on construction.
  IngesterConnection(const Log& log, const ConnectionInfo& info);
  ~IngesterConnection() override;

  /// Sends one batch as one packet and keeps a copy of its events. Does not check shouldSend().
  void sendEvents(uint32_t context, uint64_t timestamp, const EphemeralLogEvent* events,
                  uint32_t count);
  /// Sends a kept event as a batch of one, and keeps a copy again.
  void sendEvent(const LogEvent& event);
  /// The same for an event that its owner gives up: it becomes the kept copy itself.
  void sendEvent(LogEvent&& event);
  /// Drops every kept batch up to and including number `sequence` (batches count from 0 in
  /// sending order). An older or repeated number does nothing. The ingester is trusted not to
  /// acknowledge a batch that was never sent.
  void acknowledgeBatches(uint64_t sequence);

  /// Sent batches not yet acknowledged, oldest first.
  std::deque<std::vector<LogEvent>> unacknowledged;
  /// Batches removed from the front of `unacknowledged` so far.
  uint64_t acknowledged = 0;
};
