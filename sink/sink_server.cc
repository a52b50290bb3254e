#include "sink/sink_server.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr uint64_t SWEEP_INTERVAL = 200'000'000ull;
constexpr uint64_t IDLE_CHECK_INTERVAL = 20'000'000ull;

uint64_t monotonicNanos() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

uint64_t perSecond(uint64_t count, uint64_t nanos) {
  if (nanos == 0) return 0;
  return static_cast<uint64_t>(static_cast<double>(count) * 1e9 / static_cast<double>(nanos));
}

}  // namespace

SinkServer::SinkServer(const Log& parent, EventLoop& eventLoop, const SinkOptions& options,
                       SinkOutput& output)
    : log(parent.with("component", "SinkServer")),
      loop(eventLoop),
      shared{options, eventLoop, output, {}},
      listener(parent, eventLoop,
               [this](int socket, const ConnectionInfo& peer) { accept(socket, peer); }) {
  output.setProgressHandler([this] { outputProgressed(); });
}

SinkServer::~SinkServer() {
  shared.output.setProgressHandler(nullptr);
  loop.removeInterval(&reportKey);
  loop.removeInterval(&sweepKey);
  loop.removeInterval(&idleKey);
}

bool SinkServer::start() {
  const SinkOptions& options = shared.options;
  if (!listener.open(options.listenAddress, options.listenAddressLength)) return false;
  lastReportNanos = monotonicNanos();
  // Intervals fire on the next pass when added; the report has nothing to do then.
  loop.addInterval(options.reportIntervalNanos, &reportKey, [this] { return report(); });
  loop.addInterval(SWEEP_INTERVAL, &sweepKey, [this] { return sweep(); });
  if (options.exitAfterIdleNanos) {
    loop.addInterval(IDLE_CHECK_INTERVAL, &idleKey, [this] { return checkIdle(); });
  }
  return true;
}

bool SinkServer::shouldRun() const {
  if (shared.output.hasFailed() || idleExit) return false;
  const std::optional<uint64_t>& limit = shared.options.exitAfterEvents;
  return !limit || shared.stats.events < *limit;
}

void SinkServer::accept(int socket, const ConnectionInfo& peer) {
  const uint64_t number = shared.stats.connections++;
  info(log.with("connection", number)) << "Accepted a connection from " << peer << std::endl;
  connections.push_back(std::make_unique<SinkConnection>(log.with("connection", number), peer,
                                                         socket, number, shared));
}

void SinkServer::outputProgressed() {
  const uint64_t written = shared.output.written();
  for (const auto& con : connections) con->acknowledgeWritten(written);
  const size_t count = connections.size();
  for (size_t i = 0; i < count && !shared.output.full(); ++i) {
    connections[(nextToResume + i) % count]->outputDrained();
  }
  if (count > 0) nextToResume = (nextToResume + 1) % count;
}

Log SinkServer::totals(uint64_t eventsPerSecond) const {
  const SinkStats& stats = shared.stats;
  return log.with("connections", stats.connections)
      .with("open_connections", connections.size())
      .with("batches", stats.batches)
      .with("events", stats.events)
      .with("bytes", stats.bytes)
      .with("events_per_second", eventsPerSecond);
}

bool SinkServer::report() {
  const uint64_t now = monotonicNanos();
  // The first call comes right at the start, before anything could have happened.
  if (now - lastReportNanos < shared.options.reportIntervalNanos / 2) return false;
  const uint64_t rate = perSecond(shared.stats.events - lastReportEvents, now - lastReportNanos);
  info(totals(rate)) << "Intake so far" << std::endl;
  lastReportNanos = now;
  lastReportEvents = shared.stats.events;
  return true;
}

void SinkServer::reportFinal() {
  const SinkStats& stats = shared.stats;
  // Measured from the first event to the last, so waiting before or after doesn't count.
  const uint64_t rate = perSecond(stats.events, stats.lastEventNanos - stats.firstEventNanos);
  info(totals(rate)) << "Intake total" << std::endl;
}

bool SinkServer::sweep() {
  // A peer that never finishes its handshake would hold a descriptor for good.
  const uint64_t now = monotonicNanos();
  for (const auto& con : connections) con->expireHandshake(now);
  // Connections die here and only here: never inside one of their own callbacks.
  const auto dead = std::remove_if(connections.begin(), connections.end(),
                                   [](const auto& con) { return con->collectable(); });
  if (dead == connections.end()) return false;
  connections.erase(dead, connections.end());
  return true;
}

bool SinkServer::checkIdle() {
  const SinkStats& stats = shared.stats;
  if (stats.firstEventNanos == 0) return false;
  if (monotonicNanos() - stats.lastEventNanos < *shared.options.exitAfterIdleNanos) return false;
  info(log) << "No event for the idle time, exiting" << std::endl;
  idleExit = true;
  return true;
}
