#include "sink/sink_listener.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Level-triggered, so a longer backlog brings the loop back; this only bounds one wake-up.
constexpr int ACCEPTS_PER_WAKEUP = 64;
// How long accepting pauses when the process is out of descriptors.
constexpr uint64_t RETRY_AFTER_LIMIT = 100'000'000ull;

}  // namespace

ConnectionInfo peerConnectionInfo(const sockaddr_storage& address, socklen_t length) {
  addrinfo entry{};
  entry.ai_family = address.ss_family;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addrlen = length;
  entry.ai_addr = const_cast<sockaddr*>(reinterpret_cast<const sockaddr*>(&address));
  if (address.ss_family == AF_INET6) {
    return ConnectionInfo(entry,
                          ConnectionString(reinterpret_cast<const sockaddr_in6&>(address)));
  }
  return ConnectionInfo(entry, ConnectionString(reinterpret_cast<const sockaddr_in&>(address)));
}

SinkListener::SinkListener(const Log& parent, EventLoop& eventLoop, AcceptHandler handler)
    : log(parent.with("component", "SinkListener")), loop(eventLoop), onAccept(std::move(handler)) {}

SinkListener::~SinkListener() {
  if (socket == -1) return;
  loop.removeInterval(&retryKey);
  loop.removeEpollListener(this);
  if (close(socket) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not close the listening socket: " << strerror(savedErrno) << std::endl;
  }
}

bool SinkListener::open(const sockaddr_storage& address, socklen_t length) {
  const int fd = ::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) {
    const int savedErrno = errno;
    error(log) << "Could not create the listening socket: " << strerror(savedErrno) << std::endl;
    return false;
  }
  // A restarted sink must not wait for the old one's connections to leave TIME_WAIT.
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not set SO_REUSEADDR: " << strerror(savedErrno) << std::endl;
  }
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not bind the listening socket: " << strerror(savedErrno) << std::endl;
    close(fd);
    return false;
  }
  if (listen(fd, SOMAXCONN) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not listen: " << strerror(savedErrno) << std::endl;
    close(fd);
    return false;
  }
  sockaddr_storage bound{};
  socklen_t boundLength = sizeof bound;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &boundLength) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not read the bound address: " << strerror(savedErrno) << std::endl;
    close(fd);
    return false;
  }
  // The port field sits at the same offset in both families.
  boundPort = ntohs(reinterpret_cast<const sockaddr_in&>(bound).sin_port);
  socket = fd;
  loop.setEpollListener(socket, EPOLLIN, this);
  loop.addInterval(RETRY_AFTER_LIMIT, &retryKey, [this] { return resume(); });
  info(log) << "Listening on " << peerConnectionInfo(bound, boundLength) << std::endl;
  return true;
}

void SinkListener::backOff(int savedErrno) {
  if (!atLimit) {
    error(log) << "Could not accept a connection: " << strerror(savedErrno)
               << "; trying again every 100 ms" << std::endl;
    atLimit = true;
  }
  backingOff = true;
  loop.setEpollListener(socket, 0, this);
}

bool SinkListener::resume() {
  if (!backingOff) return false;
  backingOff = false;
  loop.setEpollListener(socket, EPOLLIN, this);
  return true;
}

void SinkListener::descriptorAvailable(int) {
  for (int i = 0; i < ACCEPTS_PER_WAKEUP; ++i) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int fd = accept4(socket, reinterpret_cast<sockaddr*>(&peer), &length,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd == -1) {
      const int savedErrno = errno;
      switch (savedErrno) {
        case EAGAIN:
          return;
        // The peer gave up before we got to it, or a signal came in: try the next one.
        case ECONNABORTED:
        case EINTR:
          continue;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
          backOff(savedErrno);
          return;
        default:
          error(log) << "Could not accept a connection: " << strerror(savedErrno) << std::endl;
          return;
      }
    }
    if (atLimit) {
      info(log) << "Accepting connections again" << std::endl;
      atLimit = false;
    }
    onAccept(fd, peerConnectionInfo(peer, length));
  }
}
