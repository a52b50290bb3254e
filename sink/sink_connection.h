// One accepted agent connection of the sink: answers registrations and configurations, queues
// the events of every batch for the shared output, acknowledges batches once the output thread
// has handed their events to the kernel, stops reading while the output's queue is full, and
// injects the faults the command line asks for. Internal to sink/.
//
// Main thread only. The sink owns its connections and destroys them only from its sweep, never
// from one of their own callbacks; collectable() says when that is safe.
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "sink/sink_options.h"
#include "sink/sink_output.h"

/// Totals of the whole sink since it started.
struct SinkStats {
  uint64_t connections = 0;
  uint64_t batches = 0;
  uint64_t events = 0;
  uint64_t bytes = 0;
  uint64_t firstEventNanos = 0;  // monotonic; 0 until the first event
  uint64_t lastEventNanos = 0;
};

/// What all connections of one sink share; owned by the sink, outlives every connection.
struct SinkShared {
  const SinkOptions& options;
  EventLoop& loop;
  SinkOutput& output;
  SinkStats stats;
};

class SinkConnection : public NetworkConnection {
 public:
  /// Takes over the accepted `socket`, sets up the TLS server side and registers at the loop.
  /// `number` names the connection in the output, counting from 0 in accepting order.
  SinkConnection(const Log& log, const ConnectionInfo& info, int socket, uint64_t number,
                 SinkShared& shared);
  ~SinkConnection() override;

  /// Waits for nothing but the socket's end while a hold has nothing to send.
  void descriptorAvailable(int events) override;
  /// Base parse, whose batches go to the output queue, then carry out the faults that became due.
  /// Parses nothing while a stall or a full output queue holds the connection.
  void parseRecvBuffer() override;
  /// The commands an agent sends, which the shared code has no reader for.
  bool parseOtherCommand(uint16_t command, IncomingPacket& packet) override;
  /// Far above an agent's largest packet, far below what the protocol allows.
  uint32_t maximumPacketLength() const override;

  /// The output thread has written every batch numbered below `writtenBatches` (SinkOutput's
  /// numbers): sends their acknowledgements, in order, and then any fault that waited for them.
  void acknowledgeWritten(uint64_t writtenBatches);
  /// The output queue has room again: reads and parses again if it was held for that.
  void outputDrained();

  // Handlers of the three commands an agent sends; called from within parseRecvBuffer.
  void registerContext(const CmdRegisterIngestContext& cmd);
  void configureContext(const CmdIngestConfig& cmd);
  void takeBatch(uint32_t context, uint64_t timestamp, const WireEvents& events);

  /// Fails the connection if its TLS handshake has run past the time-out at `now` (monotonic).
  void expireHandshake(uint64_t now);
  /// FAILED or FINISHED, and no timer of this connection is pending.
  bool collectable() const;

 private:
  struct Context {
    std::string token;
    bool acknowledge = false;
  };
  struct PendingAck {
    uint64_t queued;  // SinkOutput's number of the batch
    uint64_t batch;   // the connection's
  };

  bool canSend() const { return state == ESTABLISHED || state == CLOSED_READ; }
  bool isDead() const { return state == FAILED || state == FINISHED; }
  /// Marks the faults whose count has been reached as due.
  void armFaults();
  void applyFaults();
  /// Runs from a zero-delay timeout, outside of every callback of this connection: that is where
  /// it is safe to shut the socket down or to leave the loop.
  void scheduleDeferred();
  void runDeferred();
  void resumeReading();
  /// After a large packet, gives the receive buffer's memory back.
  void shrinkReceiveBuffer();
  /// Stops reading at once, even in the middle of the read loop of an event, and leaves the loop.
  void holdForOutput();
  /// OpenSSL reads from an empty memory BIO while the output holds the connection: the read loop
  /// ends there, rather than when the peer pauses, which a fast peer might never do.
  void stopSocketReads();
  void restartSocketReads();
  /// Leaves the loop while something holds the connection, and comes back and parses what was
  /// held once nothing does. Outside of every callback of this connection only.
  void updateReading();

  SinkShared& shared;
  const uint64_t number;
  const uint64_t acceptedNanos;  // monotonic
  /// The fault flags in force on this connection: the command line's, or none at all.
  const SinkOptions& faults;
  std::unordered_map<uint32_t, Context> contexts;
  uint64_t batchesTaken = 0;
  std::deque<PendingAck> pendingAcks;  // queued, not yet written out; in batch order

  // Each fault goes due once and is carried out once.
  bool errorDue = false, errorDone = false;
  bool closeDue = false, closeDone = false;
  bool unacceptedDue = false, unacceptedDone = false;
  bool stallDue = false, stallDone = false;
  // After a fault that ends the connection, further batches are dropped unwritten and
  // unacknowledged, as by a server that has gone away; the agent sends them again elsewhere.
  bool refusing = false;

  bool stallHolding = false;     // a stall is due or running: received bytes wait unparsed
  bool outputHolding = false;    // the output queue was full: received bytes wait unparsed
  bool paused = false;           // deregistered from the loop by one of the two holds
  BIO* heldSocketBio = nullptr;  // OpenSSL's socket BIO while its reads are stopped; one ref ours
  bool abruptPending = false;
  bool stallPending = false;
  bool deferredScheduled = false;
  bool resumeScheduled = false;
  char deferredKey = 0;  // timer keys: their addresses live exactly as long as this object
  char resumeKey = 0;
};

/// The handler class for NetworkCmdHandler: the three ids an agent sends, nothing else. Batches
/// go from the parser to takeBatch() directly, as they lie in the packet.
class SinkHandler {
 public:
  explicit SinkHandler(SinkConnection* connection) : con(connection) {}

  CommandSet acceptedCommands() const;
  void operator()(CmdRegisterIngestContext&& cmd) { con->registerContext(cmd); }
  void operator()(CmdIngestConfig&& cmd) { con->configureContext(cmd); }

 private:
  SinkConnection* con;  // the connection owning this handler
};
