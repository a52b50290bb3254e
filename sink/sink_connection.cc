#include "sink/sink_connection.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "protocol/ingest_contexts_map.h"
#include "protocol/network_packet.h"

namespace {

uint64_t monotonicNanos() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

const std::string INJECTED_ERROR = "injected error";
const std::string TOKEN_REFUSED = "write token refused";
const std::string UNREGISTERED_TOKEN;
const SinkOptions NO_FAULTS;

// An agent's batch is at most one read of its 64 KiB line buffer. A packet is parsed where it
// lies, so whatever a peer announces here is memory the sink holds for it.
constexpr uint32_t MAXIMUM_PACKET = 1 << 20;
// A receive buffer that grew past this for a large packet shrinks back once that has been parsed.
constexpr uint64_t KEPT_RECEIVE_BUFFER = 4 * 65536;

// With read-ahead, OpenSSL reads up to this much in one system call rather than one record's
// worth (about 16 KiB): an agent at full speed fills it, and the sink makes fewer calls.
constexpr size_t TLS_READ_BUFFER = 128 << 10;

// The kernel doubles it. Left to itself, it grows a receive buffer that is read quickly up to
// net.ipv4.tcp_rmem's maximum (32 MiB on some machines): with the output on its own thread the
// sink reads quickly, and once the output slows down, that buffer took in seconds of it before the
// agent felt anything. Loopback and LAN round trips fill 256 KiB many times over per millisecond.
constexpr int RECEIVE_BUFFER = 256 << 10;

}  // namespace

CommandSet SinkHandler::acceptedCommands() const {
  CommandSet set;
  set.insert(CmdRegisterIngestContext::ID);
  set.insert(CmdIngestLogEvents::ID);
  set.insert(CmdIngestConfig::ID);
  return set;
}

SinkConnection::SinkConnection(const Log& baseLog, const ConnectionInfo& info, int acceptedSocket,
                               uint64_t connectionNumber, SinkShared& sinkShared)
    : NetworkConnection(baseLog, info, acceptedSocket, true),
      shared(sinkShared),
      number(connectionNumber),
      acceptedNanos(monotonicNanos()),
      faults(!sinkShared.options.faultyConnections ||
                     connectionNumber < *sinkShared.options.faultyConnections
                 ? sinkShared.options
                 : NO_FAULTS) {
  if (setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not set the receive buffer: " << strerror(savedErrno) << std::endl;
  }
  if (ssl) SSL_set_default_read_buffer_len(ssl, TLS_READ_BUFFER);
  setHandler(std::make_unique<NetworkCmdHandler<SinkHandler>>(this));
  // The agent closes its side when it is done; answer in kind so the connection can finish.
  setReadClosedHandler([this] { finish(); });
  // A count of 0 means right after the handshake.
  setEstablishedHandler([this] {
    armFaults();
    applyFaults();
  });
  registerAt(&shared.loop);
}

SinkConnection::~SinkConnection() {
  // Gives OpenSSL its socket BIO back, so that it frees what it owns and nothing else.
  restartSocketReads();
}

void SinkConnection::descriptorAvailable(int events) {
  // A hold stays registered to send the acknowledgements before it, while the peer's bytes keep
  // the socket readable and OpenSSL's reads are stopped: every wake-up would find nothing and ask
  // for more at once. An error or hang-up lets OpenSSL see the socket again, to end it.
  const bool ended = (events & (EPOLLERR | EPOLLHUP)) != 0;
  if ((stallHolding || outputHolding) && usedSendBuffer() == 0 && !ended && !isDead()) {
    shared.loop.setEpollListener(socket, 0, this);
    return;
  }
  if (ended) restartSocketReads();
  NetworkConnection::descriptorAvailable(events);
}

void SinkConnection::parseRecvBuffer() {
  // After a stall became due or the output filled up, the TLS read ends with the next record.
  // What came in meanwhile stays in the receive buffer until the hold is over.
  if (stallHolding || outputHolding) return;
  if (shared.output.full()) {
    holdForOutput();
    return;
  }
  NetworkConnection::parseRecvBuffer();
  shrinkReceiveBuffer();
  // The queue may go past its limit by what one read brought; reading stops from here on.
  if (shared.output.full()) holdForOutput();
  applyFaults();
}

uint32_t SinkConnection::maximumPacketLength() const {
  return MAXIMUM_PACKET;
}

void SinkConnection::shrinkReceiveBuffer() {
  const uint64_t used = usedRecvBuffer();
  if (recvBufferSize <= KEPT_RECEIVE_BUFFER || used > INITIAL_RECV_BUFFER_SIZE / 2) return;
  auto smaller = std::make_unique_for_overwrite<uint8_t[]>(INITIAL_RECV_BUFFER_SIZE);
  memcpy(smaller.get(), recvRead, used);
  recvBuffer = std::move(smaller);
  recvBufferSize = INITIAL_RECV_BUFFER_SIZE;
  recvRead = recvBuffer.get();
  recvWrite = recvRead + used;
}

void SinkConnection::acknowledgeWritten(uint64_t writtenBatches) {
  if (pendingAcks.empty() || pendingAcks.front().queued >= writtenBatches) return;
  // An acknowledgement promises that the batch is safe with us: it goes out only once the
  // output thread has handed the batch's events to the kernel.
  while (!pendingAcks.empty() && pendingAcks.front().queued < writtenBatches) {
    if (canSend()) send(CmdIngestLogAck{0, pendingAcks.front().batch, 0});
    pendingAcks.pop_front();
  }
  applyFaults();
}

void SinkConnection::holdForOutput() {
  outputHolding = true;
  stopSocketReads();
  scheduleDeferred();
}

void SinkConnection::stopSocketReads() {
  // A connection that has died has no loop to wait on: its read loop must end on the closed
  // socket, not on an empty BIO that asks to be read again later.
  if (heldSocketBio || !ssl || isDead()) return;
  BIO* empty = BIO_new(BIO_s_mem());
  if (!empty) return;  // then the read loop ends when the peer pauses, and leaving the loop holds
  // Empty, it asks to be read again later, as a socket without data does.
  BIO_set_mem_eof_return(empty, -1);
  heldSocketBio = SSL_get_rbio(ssl);
  // OpenSSL frees the BIO it reads from when that is replaced; the socket BIO, which it also
  // writes to, has to survive that.
  BIO_up_ref(heldSocketBio);
  SSL_set0_rbio(ssl, empty);
}

void SinkConnection::restartSocketReads() {
  if (!heldSocketBio) return;
  SSL_set0_rbio(ssl, heldSocketBio);  // frees the empty BIO; our reference goes to OpenSSL
  heldSocketBio = nullptr;
}

void SinkConnection::outputDrained() {
  if (!outputHolding) return;
  outputHolding = false;
  updateReading();
}

void SinkConnection::updateReading() {
  if (stallHolding || outputHolding) {
    if (!paused && !isDead()) {
      deregister();
      paused = true;
    }
    return;
  }
  restartSocketReads();
  if (paused) {
    paused = false;
    // registerAt() re-arms the interest and reads what OpenSSL may already hold.
    if (!isDead()) registerAt(&shared.loop);
  }
  // When registerAt() found answers queued meanwhile, it sent them and left the interest unset;
  // and a hold that ended before it left the loop kept the interest of its last empty read.
  // Either way, this reads.
  if (!isDead() && loop) epollListen();
  // What was held in the receive buffer needs a parse of its own in case nothing new arrives.
  // That includes a connection that died meanwhile: its peer sent these batches before it went.
  parseRecvBuffer();
}

void SinkConnection::registerContext(const CmdRegisterIngestContext& cmd) {
  if (!canSend()) return;
  if (faults.refuseToken && cmd.writeToken == *faults.refuseToken) {
    send(CmdIngestContextRegistered{cmd.context, TOKEN_REFUSED});
    return;
  }
  contexts[cmd.context].token = cmd.writeToken;
  // Far above any id an agent hands out, so the answer names a context it never asked for.
  const uint32_t answered = faults.unknownContext ? cmd.context + 1000000 : cmd.context;
  send(CmdIngestContextRegistered{answered, std::string()});
}

void SinkConnection::configureContext(const CmdIngestConfig& cmd) {
  if (!canSend()) return;
  Context& context = contexts[cmd.context];
  const auto ack = cmd.integerOptions.find(ENABLE_ACK);
  context.acknowledge = ack != cmd.integerOptions.end() && ack->second == 1;

  const std::vector<std::string>& omit = faults.configOmit;
  auto taken = [&](const std::string& name) {
    return std::find(omit.begin(), omit.end(), name) == omit.end();
  };
  CmdIngestConfigAck answer{cmd.context, {}};
  for (const auto& [name, value] : cmd.integerOptions) {
    if (taken(name)) answer.options.push_back(name);
  }
  for (const auto& [name, value] : cmd.stringOptions) {
    if (taken(name)) answer.options.push_back(name);
  }
  for (const std::string& name : faults.configExtra) answer.options.push_back(name);
  send(answer);
}

void SinkConnection::takeBatch(uint32_t contextId, uint64_t timestamp, const WireEvents& events) {
  if (refusing) return;
  const uint64_t batch = batchesTaken++;
  const auto found = contexts.find(contextId);
  // A batch for a context that was never registered is still written, with an empty token.
  const Context* context = found == contexts.end() ? nullptr : &found->second;
  const uint64_t queued = shared.output.add(context ? context->token : UNREGISTERED_TOKEN,
                                            contextId, timestamp, number, batch, events);

  SinkStats& stats = shared.stats;
  stats.bytes += static_cast<uint64_t>(events.end - events.begin) - 2ull * events.count;
  stats.events += events.count;
  ++stats.batches;
  if (events.count > 0) {
    stats.lastEventNanos = monotonicNanos();
    if (stats.firstEventNanos == 0) stats.firstEventNanos = stats.lastEventNanos;
  }

  if (context && context->acknowledge && !faults.noAck) pendingAcks.push_back({queued, batch});
  armFaults();
}

void SinkConnection::armFaults() {
  const SinkOptions& options = faults;
  auto reached = [this](const std::optional<uint64_t>& after) {
    return after && batchesTaken >= *after;
  };
  if (reached(options.errorAfter) && !errorDue) errorDue = refusing = true;
  if (reached(options.closeAfter) && !closeDue) closeDue = refusing = true;
  if (reached(options.sendUnacceptedAfter) && !unacceptedDue) unacceptedDue = refusing = true;
  if (options.stallAfter && shared.stats.batches >= *options.stallAfter) stallDue = true;
}

void SinkConnection::applyFaults() {
  // The peer may have closed first: a fault must not revive a connection that has ended.
  if (isDead()) return;
  // A due stall stops the parsing and the reading at once, so what the agent has in flight is
  // what the kernel's buffers hold; the connection leaves the loop only once the
  // acknowledgements of the batches before it went out, which it could not send off the loop.
  if (stallDue && !stallDone && !stallHolding) {
    stallHolding = true;
    stopSocketReads();
  }
  // The faults that end the exchange come after those acknowledgements too, as from a server
  // that answers what it took before it misbehaves.
  if (!pendingAcks.empty()) return;
  if (stallDue && !stallDone) {
    stallDone = true;
    stallPending = true;
    scheduleDeferred();
  }
  if (errorDue && !errorDone) {
    errorDone = true;
    if (canSend()) {
      info(log) << "Injecting an error on the connection from " << connectionInfo << std::endl;
      send(CmdError{INJECTED_ERROR});
    }
  }
  if (unacceptedDue && !unacceptedDone) {
    unacceptedDone = true;
    if (canSend()) {
      info(log) << "Injecting an unaccepted command on the connection from " << connectionInfo
                << std::endl;
      OutgoingPacket packet(this, CmdCompleted::ID, 0);
    }
  }
  if (closeDue && !closeDone) {
    closeDone = true;
    info(log) << "Injecting a" << (faults.abrupt ? "n abrupt" : "") << " close of "
              << "the connection from " << connectionInfo << std::endl;
    if (faults.abrupt) {
      abruptPending = true;
      scheduleDeferred();
    } else {
      finish();
    }
  }
}

void SinkConnection::scheduleDeferred() {
  if (deferredScheduled) return;
  deferredScheduled = true;
  shared.loop.addTimeout(0, &deferredKey, [this] {
    runDeferred();
    return true;
  });
}

void SinkConnection::runDeferred() {
  deferredScheduled = false;
  if (abruptPending) {
    abruptPending = false;
    stallPending = false;
    // Shutting the socket down, not just closing it, makes sure the peer sees the end even
    // though OpenSSL still holds the descriptor; no TLS close goes out.
    if (socket != -1 && shutdown(socket, SHUT_RDWR) == -1) {
      const int savedErrno = errno;
      error(log) << "Could not shut the socket down: " << strerror(savedErrno) << std::endl;
    }
    failConnection();
    return;
  }
  if (stallPending) {
    stallPending = false;
    if (isDead()) {
      stallHolding = false;
      return;
    }
    info(log.with("stall_ms", faults.stallNanos / 1'000'000))
        << "Stalling the connection from " << connectionInfo << std::endl;
    resumeScheduled = true;
    shared.loop.addTimeout(faults.stallNanos, &resumeKey, [this] {
      resumeReading();
      return true;
    });
  }
  updateReading();
}

void SinkConnection::resumeReading() {
  resumeScheduled = false;
  stallHolding = false;
  if (isDead()) return;
  info(log) << "Resuming the connection from " << connectionInfo << std::endl;
  updateReading();
}

void SinkConnection::expireHandshake(uint64_t now) {
  if (state != SSL_ACCEPTING || now - acceptedNanos < shared.options.handshakeTimeoutNanos) return;
  info(log) << "The TLS handshake of the connection from " << connectionInfo
            << " did not finish in time, closing it" << std::endl;
  failConnection();
}

bool SinkConnection::collectable() const {
  // A connection held for the output still has batches to write that its peer sent.
  return isDead() && !deferredScheduled && !resumeScheduled && !outputHolding;
}
