#include "app/ingester_connection.h"

#include <utility>

#include "protocol/network_command.h"

IngesterConnection::IngesterConnection(const Log& baseLog, const ConnectionInfo& info)
    : NetworkConnection(baseLog, info, true) {}

IngesterConnection::~IngesterConnection() = default;

// The copy is taken whether or not the ingester agreed to acknowledge: without acknowledgements
// it is only dropped when the connection is replaced.
void IngesterConnection::sendEvents(uint32_t context, uint64_t timestamp,
                                    const EphemeralLogEvent* events, uint32_t count) {
  send(CmdIngestLogEvents{context, timestamp, events, count});
  // Built in place, in the queue: each event costs one allocation and one copy of its bytes.
  std::vector<LogEvent>& batch = unacknowledged.emplace_back();
  batch.reserve(count);
  for (uint32_t i = 0; i < count; ++i) keepEvent(batch, context, timestamp, events[i]);
}

void IngesterConnection::sendEvent(const LogEvent& event) {
  sendEvent(LogEvent(event));
}

void IngesterConnection::sendEvent(LogEvent&& event) {
  const uint8_t* data = reinterpret_cast<const uint8_t*>(event.data.data());
  const EphemeralLogEvent view{data, data + event.data.size()};
  send(CmdIngestLogEvents{event.context, event.timestamp, &view, 1});
  // The kept copy is the event itself: the queue hands it over instead of copying it.
  std::vector<LogEvent>& batch = unacknowledged.emplace_back();
  batch.reserve(1);
  batch.push_back(std::move(event));
}

void IngesterConnection::acknowledgeBatches(uint64_t sequence) {
  // Acknowledgements count packets. A peer that acknowledges more than was sent gets no further
  // say: the count jumps to its number instead of popping an empty queue (or counting to 2^64).
  while (sequence >= acknowledged) {
    if (unacknowledged.empty()) {
      acknowledged = sequence + 1;
      break;
    }
    unacknowledged.pop_front();
    ++acknowledged;
  }
}
