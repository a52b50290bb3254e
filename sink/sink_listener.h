// The sink's listening socket on the event loop: accepts non-blocking connections and hands each
// over with the peer's address. Internal to sink/.
//
// Main thread only. Registers at the loop in open() and deregisters in its destructor.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <functional>

#include "loop/event_loop.h"
#include "protocol/connection_info.h"
#include "support/log.h"

class SinkListener : public EpollListener {
 public:
  /// Gets each accepted socket, which it then owns, and the peer's address.
  using AcceptHandler = std::function<void(int socket, const ConnectionInfo& peer)>;

  SinkListener(const Log& log, EventLoop& loop, AcceptHandler onAccept);
  ~SinkListener();
  SinkListener(const SinkListener&) = delete;
  SinkListener& operator=(const SinkListener&) = delete;

  /// Binds, listens and registers. False, after an ERROR line, if the address can't be had.
  bool open(const sockaddr_storage& address, socklen_t length);
  /// The bound port; useful after binding port 0.
  uint16_t port() const { return boundPort; }

  void descriptorAvailable(int events) override;

 private:
  /// Out of descriptors or memory: stops listening for a moment. The listener is
  /// level-triggered, so the waiting backlog would wake the loop again at once, over and over.
  void backOff(int savedErrno);
  /// Listens again after a back-off.
  bool resume();

  Log log;
  EventLoop& loop;
  AcceptHandler onAccept;
  int socket = -1;
  uint16_t boundPort = 0;
  bool backingOff = false;
  bool atLimit = false;  // since the last accept that worked: says so once, not per retry
  char retryKey = 0;
};

/// The peer of an accepted socket as a ConnectionInfo whose text is the numeric address.
ConnectionInfo peerConnectionInfo(const sockaddr_storage& address, socklen_t length);
