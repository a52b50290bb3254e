// One non-blocking stream socket, optionally wrapped in TLS, living on the event loop. Public
// header; protocol and app include it.
//
// The connection owns a receive buffer that it cuts into packets and a send buffer into which
// send(...) writes whole packets (see protocol/network_packet.h). Its state machine keeps the two
// directions of the stream apart, so one side can finish while the other is still open. Users get
// four callbacks, a command acceptor, send(...), shouldSend() for back-pressure and finish().
//
// Main thread only. Callbacks run deep inside an event: they may send or finish, but must never
// destroy the connection. A connection deregisters from its loop before it dies.
#pragma once

#include <openssl/types.h>

#include <bitset>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "loop/event_loop.h"
#include "protocol/connection_info.h"
#include "support/log.h"

class NetworkCmdAcceptor;
struct CmdError;
struct CmdRegisterIngestContext;
struct CmdIngestContextRegistered;
struct CmdIngestLogEvents;
struct CmdIngestConfig;
struct CmdIngestConfigAck;
struct CmdIngestLogAck;

class NetworkConnection : public EpollListener {
 public:
  // The numeric values matter: the closing states are compared as ranges. 5 is never set.
  enum State : uint32_t {
    FAILED = 0,
    CONNECTING = 1,
    SSL_CONNECTING = 2,
    SSL_ACCEPTING = 3,
    ESTABLISHED = 4,
    CLOSED_READ = 6,
    CLOSING_WRITE = 7,
    CLOSED_READ_CLOSING_WRITE = 8,
    CLOSED_WRITE = 9,
    FINISHED = 10,
  };

  class OutgoingPacket;  // protocol/network_packet.h
  class IncomingPacket;  // protocol/network_packet.h

  /// Prepares the one TLS context of the process; later calls return at once. `server` loads
  /// "brindlewood.crt" and "brindlewood.key" from the working directory; `keepLibraryDefaults`
  /// false restricts to TLS 1.3 with a single suite. Any failure stops the process.
  static void Initialize(const Log& log, bool server, bool keepLibraryDefaults);

  /// Starts connecting at once. On an immediate failure the connection is FAILED with no socket
  /// and no callback will ever come; the creator has to test for that.
  NetworkConnection(const Log& log, const ConnectionInfo& info, bool useTLS);
  /// Takes over an already connected `socket` as it stands. With TLS the server handshake
  /// begins at registerAt().
  NetworkConnection(const Log& log, const ConnectionInfo& info, int socket, bool useTLS);
  /// Drops the connection without a TLS close and without callbacks; queued data is lost.
  /// Asserts that nobody holds a reference.
  virtual ~NetworkConnection();
  NetworkConnection(const NetworkConnection&) = delete;
  NetworkConnection& operator=(const NetworkConnection&) = delete;

  void descriptorAvailable(int events) override;

  /// Moves the connection to `newLoop` (leaving any earlier loop). A connection without a socket
  /// stays unregistered.
  void registerAt(EventLoop* newLoop);
  void deregister();
  /// True if ESTABLISHED and fewer than `acceptableBuffer` bytes are queued (< 2^32).
  bool shouldSend(uint64_t acceptableBuffer) const;
  /// shouldSend(4096).
  bool shouldSend() const;
  bool hasFailed() const;
  /// Neither connecting, handshaking as a client, nor ESTABLISHED.
  bool isDown() const;
  State connectionState() const { return state; }
  /// Bytes queued and not yet handed to the socket; 0 without a send buffer.
  uint64_t usedSendBuffer() const;

  /// Orderly close: sends what is queued, then closes our direction. On a connection that is
  /// still being set up this is a failure.
  void finish();
  /// The road to FAILED; may run more than once. The error callback runs (once) while the socket
  /// is still open, unless a reference holds it back.
  void failConnection();

  void setEstablishedHandler(std::function<void()> handler);
  void setReadClosedHandler(std::function<void()> handler);
  void setErrorHandler(std::function<void()> handler);
  void setFinishedHandler(std::function<void()> handler);
  /// Takes ownership of `acceptor` (destroying an earlier one) and copies its acceptedCommands()
  /// (protocol/network_command.cc).
  void setHandler(std::unique_ptr<NetworkCmdAcceptor> acceptor);

  // One packet each, written whole into the send buffer (protocol/network_command.cc).
  void send(const CmdError& cmd);
  void send(const CmdRegisterIngestContext& cmd);
  void send(const CmdIngestContextRegistered& cmd);
  void send(const CmdIngestLogEvents& cmd);
  void send(const CmdIngestConfig& cmd);
  void send(const CmdIngestConfigAck& cmd);
  void send(const CmdIngestLogAck& cmd);

  const ConnectionInfo connectionInfo;

 protected:
  static constexpr uint64_t INITIAL_RECV_BUFFER_SIZE = 65536;
  /// A read gets at least this much room; less than that and the data slides or the buffer grows.
  static constexpr uint64_t READ_ROOM = 4096;

  /// Calls the error handler if set. Reached at most once, and never together with the finish.
  virtual void connectionError();
  /// Calls the finished handler if set.
  virtual void connectionFinished();
  /// Cuts whole packets out of the receive buffer and dispatches them in place
  /// (protocol/network_packet.cc).
  virtual void parseRecvBuffer();
  /// Builds and dispatches a received command; false if it has no case or a field was truncated.
  bool parseCommand(uint16_t command, IncomingPacket& packet);
  /// The second stage after parseCommand, for commands of other programs: the agent's (in
  /// app/drover_stubs.cc) takes none; the sink overrides it with the parsers of its commands.
  virtual bool parseOtherCommand(uint16_t command, IncomingPacket& packet);
  /// A received packet that announces more ends the connection (protocol/network_packet.cc).
  virtual uint32_t maximumPacketLength() const;

  /// Recomputes what the connection waits for; with TLS this also writes queued data at once.
  /// Called after every completed outgoing packet.
  void epollListen();
  /// Makes room for at least `minimumFree` bytes behind the received data.
  void growRecvBuffer(uint32_t minimumFree);
  /// Opens the socket and connects; requires that there is no socket.
  void startConnect();
  /// The step after the socket has become writable: ESTABLISHED, or the TLS handshake.
  void socketConnected();
  /// A held reference postpones the final callback until the last decReferenceCount().
  void incReferenceCount();
  void decReferenceCount();

  static bool initialized;
  static SSL_CTX* sslCtx;

  /// Limits a line that a peer could repeat at will to five a second with bursts of 50. Each
  /// call site keeps its own thread-local bucket, so one noisy line doesn't silence another.
  struct LineBudget {
    uint64_t lastTime = 0;
    float tokens = 0;
    /// Whether the line may be written now.
    bool take();
  };

  uint64_t usedRecvBuffer() const { return recvWrite - recvRead; }
  uint64_t freeRecvBuffer() const { return recvBuffer.get() + recvBufferSize - recvWrite; }
  bool isAccepted(uint16_t command) const;

  void prepareRecvBuffer();
  void shutdownWrite();
  /// The road to FINISHED, shared by the plain read, the TLS read and shutdownWrite; each of
  /// those rate-limits the "Finished" line on its own, hence `logLine`.
  void closeFinished(bool logLine);
  void finalizeError();
  void finalizeFinished();
  void closeSocket();
  bool startSSL();
  void logSSLQueue();

  void proceedSSLConnect();
  void proceedSSLAccept();
  /// The client and server handshakes differ only in the OpenSSL call, the state while waiting
  /// and their words.
  void proceedSSLHandshake(int (*step)(SSL*), State waiting, const char* closedText,
                           const char* failedText);
  /// After a TLS call that returned `ret` <= 0: waits for what OpenSSL asked for (true), or logs
  /// `failedText` with the OpenSSL text and fails the connection (false).
  bool awaitSSL(int ret, const char* failedText);
  void proceedSSLRead();
  void proceedSSLWrite();
  void proceedSSLShutdown();

  //        recvRead         recvWrite
  //            v                v
  //  +---------+================+-------------+
  //  | consumed|   received     |    free     |
  //  +---------+================+-------------+
  //  ^recvBuffer                 recvBuffer + recvBufferSize
  // The send buffer has the same layout with sendRead/sendWrite. Both are linear, never rings:
  // a packet always lies contiguous and is parsed in place.
  int socket = -1;
  State state = FAILED;
  bool finalized = false;
  uint32_t externalReferenceCount = 0;
  uint64_t recvBufferSize = 0;
  std::unique_ptr<uint8_t[]> recvBuffer;
  uint8_t* recvRead = nullptr;
  uint8_t* recvWrite = nullptr;
  uint64_t sendBufferSize = 0;
  std::unique_ptr<uint8_t[]> sendBuffer;  // null until the first packet
  uint8_t* sendRead = nullptr;
  uint8_t* sendWrite = nullptr;
  const bool useTLS;
  SSL* ssl = nullptr;  // owned; released by the destructor only
  std::bitset<256> acceptedCommands;
  std::vector<uint64_t> extendedAcceptedCommands;  // ids from 256 up
  std::unique_ptr<NetworkCmdAcceptor> handler;
  std::function<void()> establishedHandler;
  std::function<void()> readClosedHandler;
  std::function<void()> errorHandler;
  std::function<void()> finishedHandler;
  Log log;
  EventLoop* loop = nullptr;  // not owned
  std::function<void()> retryConnect;
};
