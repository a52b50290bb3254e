// What joins the run's one event queue to its ingester connections: the handler of incoming
// commands, setting a connection up, draining the queue, and the periodic connection check.
// Internal to app/.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <shared_mutex>
#include <vector>

#include "app/ingester_connection.h"
#include "app/name_resolution.h"
#include "loop/event_loop.h"
#include "protocol/ingest_contexts_map.h"
#include "protocol/network_command.h"
#include "support/log.h"
#include "support/log_event.h"

/// Totals since the start of the process, touched on the main thread only.
extern uint64_t eventsForwarded;  // events written to a connection; a resend counts again
extern uint64_t bufferFull;       // batches the event sink refused
extern uint64_t loopBusy;         // times the loop's spin detection fired
extern uint64_t networkConnects;  // connection objects set up

using EventQueue = std::deque<LogEvent>;
using IngesterConnections = std::vector<std::unique_ptr<IngesterConnection>>;

/// The agent's answers to the four commands an ingester sends it.
template <typename Events, typename Contexts, typename LogType>
class ForwardConHandler {
 public:
  ForwardConHandler(IngesterConnection* connection, Events queue, Contexts map, LogType peerLog)
      : con(connection), events(queue), contexts(map), log(peerLog) {}

  /// Exactly the ids of the overloads below.
  CommandSet acceptedCommands() const {
    CommandSet set;
    for (uint16_t id : {CmdError::ID, CmdIngestContextRegistered::ID, CmdIngestConfigAck::ID,
                        CmdIngestLogAck::ID}) {
      set.insert(id);
    }
    return set;
  }

  void operator()(CmdError&& cmd) {
    error(log) << "Received remote error: " << cmd.message << std::endl;
    con->finish();
  }
  void operator()(CmdIngestContextRegistered&& cmd) {
    contexts.onContextRegistered(con, cmd);
    if (!cmd.error.empty()) con->finish();
  }
  void operator()(CmdIngestConfigAck&& cmd) {
    contexts.onConfigAck(con, cmd);
    if (!contexts.isContextReady(cmd.context, con)) con->finish();
  }
  void operator()(CmdIngestLogAck&& cmd) { con->acknowledgeBatches(cmd.sequence); }

 private:
  IngesterConnection* con;  // the connection owning this handler
  // The run's queue. No answer of an ingester touches it: events come back to the queue only
  // through the connection check, which owns the order of re-sending.
  Events events;
  Contexts contexts;
  LogType log;
};

using AgentHandler = NetworkCmdHandler<ForwardConHandler<EventQueue&, IngestContextsMap&, Log>>;

/// Registers `con` at the loop, gives it the agent's handler and negotiates every context on it.
void setupForwardConnection(const std::unique_ptr<IngesterConnection>& con, EventQueue& events,
                            EventLoop& loop, IngestContextsMap& contexts, const Log& log);

/// The event sink of a run: a batch goes straight to the first connection when nothing waits and
/// that connection can take it; otherwise it joins the queue whole. With more than 1023 events
/// waiting the queue is drained once first, and only if it is still that full is nothing taken
/// (false, and bufferFull counts it).
bool offerBatch(EventQueue& events, const IngesterConnections& connections, IngestContextsMap& contexts,
                uint32_t context, uint64_t timestamp, const EphemeralLogEvent* batch, uint32_t count);

/// Sends queued events one per packet, strictly from the front, on the first connections that
/// can take them.
void drainEvents(EventQueue& events, const IngesterConnections& connections, IngestContextsMap& contexts);

/// Puts `con`'s unacknowledged batches back at the front of the queue, oldest batch first.
void requeueUnacknowledged(IngesterConnection& con, EventQueue& events);

/// Drops, without a word, every connection whose address is missing from `resolved`. The order
/// of the others may change.
void dropVanished(IngesterConnections& connections, const ResolvedAddresses& resolved);

/// The five-second connection check: replaces what is down, follows the resolver, drops what
/// vanished.
void checkConnections(const Log& log, IngesterConnections& connections, EventQueue& events,
                      EventLoop& loop, IngestContextsMap& contexts, std::shared_mutex& resolvedMutex,
                      const ResolvedAddresses& resolved);
