// Hostile bytes from an ingest endpoint: whatever arrives is cut into packets and handed to the
// agent's own handler and context negotiation, read boundaries chosen by the input.
//
// Input: one byte of flags, then records of one length byte (chunk of length + 1 bytes) and the
// chunk; a short last record takes what is left.
//   bit 0: keep delivering after the connection failed, as the TLS read loop does with records
//          OpenSSL had already decrypted
//   bit 1: end with the peer's close, as the TLS read loop reports it
//   bits 2-3: batches sent (and kept unacknowledged) before the first byte arrives
//   bit 4: a third context, registered after the connection exists
//
// The range errors of the context negotiation end the real process uncaught; here they are
// caught at the call boundary and counted, so that only other failures count as findings.
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "app/forwarding.h"
#include "app/ingester_connection.h"
#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/ingest_contexts_map.h"

namespace {

std::ostream discard(nullptr);  // the harness reads no log line; formatting them still runs
Log* rootLog;
EventLoop* loop;
uint64_t inputs;
uint64_t expectedFatal;

// An address no socket can be made for: the base constructor gives up without any traffic.
ConnectionInfo unusableAddress() {
  sockaddr_in address{};
  addrinfo entry{};
  entry.ai_family = AF_UNSPEC;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_addrlen = sizeof address;
  entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
  return ConnectionInfo(entry, ConnectionString("ingester.invalid", "1"));
}

// An established agent connection over one end of a socketpair. Its TLS handshake is started
// but never answered, so every send waits in the send buffer (the send buffer never drains, and
// finish() never reaches a TLS close), while sends still run the whole epollListen path with
// its sliding of the receive buffer under the parse loop.
class ReceivingConnection : public IngesterConnection {
 public:
  ReceivingConnection(const Log& log, int fd) : IngesterConnection(log, unusableAddress()) {
    socket = fd;
    state = ESTABLISHED;
    finalized = false;
    if (!startSSL()) abort();
    SSL_set_connect_state(ssl);
  }

  /// The steps of one read that delivered `size` bytes, repeated while they don't fit.
  void deliver(const uint8_t* data, size_t size) {
    while (size > 0) {
      prepareRecvBuffer();
      const size_t taken = std::min<size_t>(size, freeRecvBuffer());
      if (taken == 0) abort();  // the read would have had no room: a fault of the buffers
      memcpy(recvWrite, data, taken);
      recvWrite += taken;
      data += taken;
      size -= taken;
      parseRecvBuffer();
    }
  }

  /// What the read loop does when the peer's close arrives.
  void peerClosed() {
    if (state == ESTABLISHED) {
      state = CLOSED_READ;
    } else if (state == CLOSING_WRITE) {
      state = CLOSED_READ_CLOSING_WRITE;
    } else {
      return;
    }
    if (readClosedHandler) readClosedHandler();
  }

  bool reading() const { return state != FAILED && state != FINISHED; }
};

void run(const uint8_t* data, size_t size) {
  const uint8_t flags = data[0];
  ++data;
  --size;

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) abort();

  IngestContextsMap contexts(*rootLog);
  EventQueue events;
  LogEventSourceConfiguration first;
  first.writeToken = "first";
  contexts.registerContext(first);
  LogEventSourceConfiguration second;
  second.writeToken = "second";
  second.enableAck = true;
  contexts.registerContext(second);

  std::unique_ptr<IngesterConnection> con = std::make_unique<ReceivingConnection>(*rootLog, fds[0]);
  auto* receiving = static_cast<ReceivingConnection*>(con.get());
  setupForwardConnection(con, events, *loop, contexts, *rootLog);
  if (flags & 0x10) {
    LogEventSourceConfiguration third;
    third.writeToken = "third";
    contexts.registerContext(third);
  }
  for (int batch = 0; batch < ((flags >> 2) & 3); ++batch) {
    con->sendEvent(LogEvent{static_cast<uint32_t>(batch % 2), 1000u + batch, "line"});
  }

  try {
    while (size > 0 && (receiving->reading() || (flags & 1))) {
      const size_t length = std::min<size_t>(size_t{data[0]} + 1, size - 1);
      receiving->deliver(data + 1, length);
      data += 1 + length;
      size -= 1 + length;
    }
    if (flags & 2) receiving->peerClosed();
  } catch (const std::out_of_range&) {
    // contexts.at, state.at(con) or the bit vector's at: an id the agent never gave out.
    ++expectedFatal;
  }

  con.reset();
  close(fds[1]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rootLog = new Log(discard);
  NetworkConnection::Initialize(*rootLog, false, true);
  atexit([] {
    fprintf(stderr, "receive_path: %llu inputs, %llu ended on a named fatal path\n",
            static_cast<unsigned long long>(inputs), static_cast<unsigned long long>(expectedFatal));
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // Made with the first input, not at start-up: the loop ignores SIGCHLD, and libFuzzer's -jobs
  // parent, which runs no input, must still be able to wait for its worker.
  if (!loop) loop = new EventLoop(*rootLog);
  ++inputs;
  run(data, size);
  return 0;
}
