#include "app/forwarding.h"

#include <algorithm>
#include <mutex>
#include <utility>

uint64_t eventsForwarded = 0;
uint64_t bufferFull = 0;
uint64_t loopBusy = 0;
uint64_t networkConnects = 0;

void setupForwardConnection(const std::unique_ptr<IngesterConnection>& con, EventQueue& events,
                            EventLoop& loop, IngestContextsMap& contexts, const Log& log) {
  con->registerAt(&loop);
  con->setHandler(std::make_unique<AgentHandler>(con.get(), events, contexts, Log(log)));
  IngesterConnection* connection = con.get();
  con->setReadClosedHandler([connection] { connection->finish(); });
  ++networkConnects;
  // Last: it writes to the connection.
  contexts.addConnection(con.get());
}

namespace {

constexpr size_t QUEUE_LIMIT = 1024;

}  // namespace

bool offerBatch(EventQueue& events, const IngesterConnections& connections, IngestContextsMap& contexts,
                uint32_t context, uint64_t timestamp, const EphemeralLogEvent* batch, uint32_t count) {
  // The fast path needs an empty queue, or the batch would overtake what waits.
  if (!connections.empty() && events.empty()) {
    IngesterConnection& first = *connections.front();
    if (first.shouldSend() && contexts.isContextReady(context, &first)) {
      first.sendEvents(context, timestamp, batch, count);
      eventsForwarded += count;
      return true;
    }
  }
  // Whole batches or nothing: the queue may grow past the limit by up to one batch.
  if (events.size() > QUEUE_LIMIT - 1) {
    // A full queue is often only a socket that was full a moment ago. Without this drain a
    // refused source waits for the one-second flush, and a pause of a few milliseconds at the
    // endpoint becomes a stall of up to a second.
    drainEvents(events, connections, contexts);
    if (events.size() > QUEUE_LIMIT - 1) {
      ++bufferFull;
      return false;
    }
  }
  for (uint32_t n = 0; n < count; ++n) keepEvent(events, context, timestamp, batch[n]);
  drainEvents(events, connections, contexts);
  return true;
}

void drainEvents(EventQueue& events, const IngesterConnections& connections, IngestContextsMap& contexts) {
  for (const auto& con : connections) {
    while (!events.empty()) {
      if (!con->shouldSend()) break;
      // Only the front is ever looked at: order matters more than using every connection.
      if (!contexts.isContextReady(events.front().context, con.get())) break;
      con->sendEvent(std::move(events.front()));
      events.pop_front();
      ++eventsForwarded;
    }
    if (events.empty()) return;
  }
}

void requeueUnacknowledged(IngesterConnection& con, EventQueue& events) {
  // Newest batch first, each walked from its first event: batches keep their order in front of
  // what waited, while the events inside a batch come out reversed. Each keeps its own time.
  while (!con.unacknowledged.empty()) {
    for (LogEvent& event : con.unacknowledged.back()) events.push_front(std::move(event));
    con.unacknowledged.pop_back();
  }
}

namespace {

bool isResolved(const ConnectionInfo& address, const ResolvedAddresses& resolved) {
  return std::any_of(resolved.begin(), resolved.end(), [&](const auto& entry) {
    const ConnectionInfo* info = std::get_if<ConnectionInfo>(&entry);
    return info && *info == address;
  });
}

}  // namespace

void dropVanished(IngesterConnections& connections, const ResolvedAddresses& resolved) {
  size_t front = 0;
  size_t tail = connections.size();
  while (front < tail) {
    if (isResolved(connections[front]->connectionInfo, resolved)) {
      ++front;
    } else {
      // Step back before exchanging, so the exchange never touches the place behind the end.
      --tail;
      std::swap(connections[front], connections[tail]);
    }
  }
  connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(tail), connections.end());
}

void checkConnections(const Log& log, IngesterConnections& connections, EventQueue& events,
                      EventLoop& loop, IngestContextsMap& contexts, std::shared_mutex& resolvedMutex,
                      const ResolvedAddresses& resolved) {
  info(log) << "Checking connections..." << std::endl;

  for (auto& slot : connections) {
    if (!slot->isDown()) continue;
    requeueUnacknowledged(*slot, events);
    const std::unique_ptr<IngesterConnection> old = std::move(slot);
    const Log peerLog = log.with("level", "INFO").with("peer", old->connectionInfo);
    info(peerLog) << "Reconnecting to " << old->connectionInfo << std::endl;
    slot = std::make_unique<IngesterConnection>(log, old->connectionInfo);
    setupForwardConnection(slot, events, loop, contexts, peerLog);
  }

  std::shared_lock<std::shared_mutex> lock(resolvedMutex);
  bool lookupFailed = false;
  for (const auto& entry : resolved) {
    if (const ConnectionError* failure = std::get_if<ConnectionError>(&entry)) {
      error(log) << "Could not resolve " << failure->host << ":" << failure->port << ": "
                 << failure->message << std::endl;
      lookupFailed = true;
      continue;
    }
    const ConnectionInfo& address = std::get<ConnectionInfo>(entry);
    const bool known = std::any_of(connections.begin(), connections.end(),
                                   [&](const auto& con) { return con->connectionInfo == address; });
    if (!known) {
      connections.push_back(std::make_unique<IngesterConnection>(log, address));
      setupForwardConnection(connections.back(), events, loop, contexts, log.with("peer", address));
    }
  }
  // After a failed lookup nothing is removed: a name server outage must not take working
  // connections down.
  if (!lookupFailed) dropVanished(connections, resolved);
}
