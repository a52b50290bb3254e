#include "net/network_connection.h"

#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>

// The one include from the layer above: the connection owns its command acceptor, and destroying
// it takes the acceptor's definition.
#include "protocol/network_command.h"

namespace {

constexpr uint64_t SHOULD_SEND_LIMIT = 4096;
// Growth beyond this is unusual enough to be worth a line.
constexpr uint64_t LOGGED_RECV_GROWTH = 31457280;

}  // namespace

bool NetworkConnection::LineBudget::take() {
  const uint64_t now = wallClockNanos();
  const uint64_t elapsed = now - lastTime;
  lastTime = now;
  const float t = static_cast<float>(static_cast<double>(elapsed) * 5 / 1e9 + tokens);
  if (t > 1) {
    tokens = std::min(t - 1, 50.0f);
    return true;
  }
  tokens = t;
  return false;
}

NetworkConnection::NetworkConnection(const Log& baseLog, const ConnectionInfo& info, bool tls)
    : connectionInfo(info),
      useTLS(tls),
      log(baseLog.with("component", "NetworkConnection")),
      retryConnect([this] { startConnect(); }) {
  recvBufferSize = INITIAL_RECV_BUFFER_SIZE;
  recvBuffer = std::make_unique_for_overwrite<uint8_t[]>(recvBufferSize);
  recvRead = recvWrite = recvBuffer.get();
  startConnect();
}

NetworkConnection::NetworkConnection(const Log& baseLog, const ConnectionInfo& info,
                                     int acceptedSocket, bool tls)
    : connectionInfo(info),
      socket(acceptedSocket),
      useTLS(tls),
      log(baseLog.with("component", "NetworkConnection")),
      retryConnect([this] { startConnect(); }) {
  recvBufferSize = INITIAL_RECV_BUFFER_SIZE;
  recvBuffer = std::make_unique_for_overwrite<uint8_t[]>(recvBufferSize);
  recvRead = recvWrite = recvBuffer.get();
  if (!useTLS) {
    state = ESTABLISHED;
    return;
  }
  // The handshake itself waits for registerAt(), which needs a loop to wait on.
  if (startSSL()) state = SSL_ACCEPTING;
}

NetworkConnection::~NetworkConnection() {
  assert(!externalReferenceCount);
  if (ssl) SSL_free(ssl);
  deregister();
  if (state != FINISHED && state != FAILED) {
    if (close(socket) == -1) {
      const int savedErrno = errno;
      error(log) << "Could not close socket: " << strerror(savedErrno) << "; state was "
                 << static_cast<uint32_t>(state) << std::endl;
    }
    socket = -1;
  }
}

void NetworkConnection::connectionError() {
  if (errorHandler) errorHandler();
}

void NetworkConnection::connectionFinished() {
  if (finishedHandler) finishedHandler();
}

void NetworkConnection::registerAt(EventLoop* newLoop) {
  deregister();
  if (socket == -1) return;
  loop = newLoop;
  loop->setEpollListener(socket, 0, this);
  epollListen();
}

void NetworkConnection::deregister() {
  if (!loop) return;
  loop->removeEpollListener(this);
  loop = nullptr;
}

bool NetworkConnection::shouldSend(uint64_t acceptableBuffer) const {
  assert(acceptableBuffer < (1ull << 32));
  if (state != ESTABLISHED) return false;
  if (!sendBuffer) return true;
  return static_cast<int64_t>(usedSendBuffer()) < static_cast<int64_t>(acceptableBuffer);
}

bool NetworkConnection::shouldSend() const {
  return shouldSend(SHOULD_SEND_LIMIT);
}

bool NetworkConnection::hasFailed() const {
  return state == FAILED;
}

bool NetworkConnection::isDown() const {
  return state != CONNECTING && state != SSL_CONNECTING && state != ESTABLISHED;
}

uint64_t NetworkConnection::usedSendBuffer() const {
  return sendBuffer ? sendWrite - sendRead : 0;
}

void NetworkConnection::setEstablishedHandler(std::function<void()> newHandler) {
  establishedHandler = std::move(newHandler);
}

void NetworkConnection::setReadClosedHandler(std::function<void()> newHandler) {
  readClosedHandler = std::move(newHandler);
}

void NetworkConnection::setErrorHandler(std::function<void()> newHandler) {
  errorHandler = std::move(newHandler);
}

void NetworkConnection::setFinishedHandler(std::function<void()> newHandler) {
  finishedHandler = std::move(newHandler);
}

void NetworkConnection::prepareRecvBuffer() {
  if (freeRecvBuffer() > READ_ROOM) return;
  if (recvRead > recvBuffer.get()) {
    const uint64_t used = usedRecvBuffer();
    memmove(recvBuffer.get(), recvRead, used);
    recvRead = recvBuffer.get();
    recvWrite = recvRead + used;
    if (freeRecvBuffer() > READ_ROOM) return;
  }
  growRecvBuffer(READ_ROOM);
}

void NetworkConnection::growRecvBuffer(uint32_t minimumFree) {
  const int64_t usedRecvBuffer = recvWrite - recvRead;
  if (static_cast<int64_t>(recvBufferSize) - usedRecvBuffer >= static_cast<int64_t>(minimumFree)) {
    memmove(recvBuffer.get(), recvRead, usedRecvBuffer);
    recvRead = recvBuffer.get();
    recvWrite = recvRead + usedRecvBuffer;
    return;
  }
  const uint64_t newSize = std::max<uint64_t>(minimumFree + usedRecvBuffer, 2 * recvBufferSize);
  if (newSize > LOGGED_RECV_GROWTH) {
    info(log) << "Growing receive buffer to " << newSize << std::endl;
    assert(newSize < 1 << 30ull);
  }
  auto newBuffer = std::make_unique_for_overwrite<uint8_t[]>(newSize);
  assert(usedRecvBuffer == recvWrite - recvRead);
  memcpy(newBuffer.get(), recvRead, usedRecvBuffer);
  recvBuffer = std::move(newBuffer);
  recvBufferSize = newSize;
  recvRead = recvBuffer.get();
  recvWrite = recvRead + usedRecvBuffer;
}

namespace {

// SO_ERROR of `socket`; stays 0 if the query itself fails.
int pendingSocketError(int socket) {
  int value = 0;
  socklen_t size = sizeof(value);
  getsockopt(socket, SOL_SOCKET, SO_ERROR, &value, &size);
  return value;
}

}  // namespace

void NetworkConnection::descriptorAvailable(int events) {
  switch (state) {
    case FAILED:
    case FINISHED:
      return;
    case CONNECTING: {
      const int value = pendingSocketError(socket);
      if (value != 0) {
        error(log) << "Connection to " << connectionInfo << " failed: " << strerror(value)
                   << std::endl;
        failConnection();
      } else if (!(events & (EPOLLERR | EPOLLHUP))) {
        socketConnected();
        epollListen();
      } else if (events & EPOLLHUP) {
        error(log) << "Remote side hung up unexpectedly." << std::endl;
        failConnection();
      } else {
        error(log) << "Socket error condition was indicated, but no error was retrieved."
                   << std::endl;
        failConnection();
      }
      return;
    }
    case SSL_CONNECTING:
      proceedSSLConnect();
      return;
    case SSL_ACCEPTING:
      proceedSSLAccept();
      return;
    case ESTABLISHED:
    case CLOSED_READ:
    case CLOSING_WRITE:
    case CLOSED_READ_CLOSING_WRITE:
    case CLOSED_WRITE:
      break;
    default:
      assert(false);
  }

  if (useTLS) {
    // OpenSSL decides what it waits for; the events only say that it may go on.
    if (sendBuffer && usedSendBuffer() > 0) {
      proceedSSLWrite();
    } else if (freeRecvBuffer() > 0) {
      proceedSSLRead();
    }
    return;
  }

  // One read and one write per event: interest is level-triggered, the loop comes back for more.
  if (events & EPOLLIN) {
    prepareRecvBuffer();
    const int64_t freeRecvBuffer = this->freeRecvBuffer();
    const ssize_t ret = read(socket, recvWrite, freeRecvBuffer);
    const int savedErrno = errno;
    if (ret == -1) {
      if (savedErrno == EAGAIN) {
        error(log) << "Data unexpectedly not available." << std::endl;
      } else {
        error(log) << "Read from socket failed: " << strerror(savedErrno) << std::endl;
        failConnection();
        return;
      }
    } else if (ret == 0) {
      static thread_local LineBudget remoteClosedLines;
      if (remoteClosedLines.take()) {
        info(log) << "Remote end closed the connection from " << connectionInfo << std::endl;
      }
      if (state == ESTABLISHED) {
        state = CLOSED_READ;
        if (readClosedHandler) readClosedHandler();
      } else if (state == CLOSING_WRITE) {
        state = CLOSED_READ_CLOSING_WRITE;
        if (readClosedHandler) readClosedHandler();
      } else if (state == CLOSED_WRITE) {
        static thread_local LineBudget finishedLines;
        closeFinished(finishedLines.take());
        return;
      } else {
        assert(false);
      }
    } else {
      assert(ret <= freeRecvBuffer);
      recvWrite += ret;
      parseRecvBuffer();
    }
  }

  if (events & EPOLLOUT) {
    const int64_t usedSendBuffer = sendBuffer ? sendWrite - sendRead : 0;
    const ssize_t ret = write(socket, sendRead, usedSendBuffer);
    const int savedErrno = errno;
    if (ret == -1) {
      if (savedErrno == EAGAIN) {
        error(log) << "Data could unexpectedly not be written." << std::endl;
      } else {
        error(log) << "Write to socket failed: " << strerror(savedErrno) << std::endl;
        failConnection();
        return;
      }
    } else if (ret == 0) {
      error(log) << "write(2) claims to have written zero bytes." << std::endl;
    } else {
      assert(ret <= usedSendBuffer);
      sendRead += ret;
      if ((state == CLOSING_WRITE || state == CLOSED_READ_CLOSING_WRITE) &&
          (!sendBuffer || sendRead == sendWrite)) {
        shutdownWrite();
      }
    }
  }

  if (!(events & (EPOLLERR | EPOLLHUP))) {
    epollListen();
    return;
  }
  const int value = pendingSocketError(socket);
  if (value != 0) {
    error(log) << "Connection to " << connectionInfo << " failed: " << strerror(value) << std::endl;
  } else if (events & EPOLLHUP) {
    error(log) << "Remote side hung up unexpectedly." << std::endl;
  } else {
    error(log) << "Socket error condition was indicated, but no error was retrieved." << std::endl;
  }
  failConnection();
}

void NetworkConnection::epollListen() {
  switch (state) {
    case FAILED:
    case FINISHED:
      return;
    case CONNECTING:
      assert(loop);
      loop->setEpollListener(socket, EPOLLOUT, this);
      return;
    case SSL_CONNECTING:
      assert(loop);
      proceedSSLConnect();
      return;
    case SSL_ACCEPTING:
      assert(loop);
      proceedSSLAccept();
      return;
    case ESTABLISHED:
    case CLOSED_READ:
    case CLOSING_WRITE:
    case CLOSED_READ_CLOSING_WRITE:
    case CLOSED_WRITE:
      break;
    default:
      assert(false);
  }

  assert(loop);
  prepareRecvBuffer();
  const bool wantRead =
      freeRecvBuffer() > 0 && state != CLOSED_READ && state != CLOSED_READ_CLOSING_WRITE;
  const bool wantWrite = sendBuffer && usedSendBuffer() > 0;
  if (useTLS) {
    // The TLS steps set the interest to what OpenSSL asks for, not to what the buffers say.
    if (wantWrite) {
      proceedSSLWrite();
    } else if (wantRead) {
      proceedSSLRead();
    }
    return;
  }
  uint32_t mask = 0;
  if (wantRead) mask |= EPOLLIN;
  if (wantWrite) mask |= EPOLLOUT;
  loop->setEpollListener(socket, mask, this);
}

void NetworkConnection::finish() {
  if (state == FAILED) return;
  if (state == CONNECTING || state == SSL_CONNECTING || state == SSL_ACCEPTING) {
    error(log) << "Connection terminated before being established." << std::endl;
    failConnection();
    return;
  }
  // Deliberately literal: finishing again after our side closed starts the close over.
  state = state == CLOSED_READ ? CLOSED_READ_CLOSING_WRITE : CLOSING_WRITE;
  if (sendBuffer && sendRead != sendWrite) return;  // the event path closes once drained
  if (useTLS) {
    proceedSSLShutdown();
  } else {
    shutdownWrite();
  }
}

void NetworkConnection::shutdownWrite() {
  assert((state == CLOSING_WRITE || state == CLOSED_READ_CLOSING_WRITE) &&
         (!sendBuffer || sendRead == sendWrite));
  if (shutdown(socket, SHUT_WR) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not shutdown socket writing: " << strerror(savedErrno) << std::endl;
  }
  if (state == CLOSED_READ_CLOSING_WRITE) {
    static thread_local LineBudget finishedLines;
    closeFinished(finishedLines.take());
    return;
  }
  assert(state == CLOSING_WRITE);
  state = CLOSED_WRITE;
}

void NetworkConnection::closeFinished(bool logLine) {
  state = FINISHED;
  if (logLine) info(log) << "Finished the connection from " << connectionInfo << std::endl;
  if (externalReferenceCount == 0) finalizeFinished();
  deregister();
  assert(socket != -1);
  closeSocket();
}

void NetworkConnection::failConnection() {
  state = FAILED;
  info(log) << "Error on the connection from " << connectionInfo << std::endl;
  if (externalReferenceCount == 0) finalizeError();
  deregister();
  if (socket != -1) closeSocket();
}

void NetworkConnection::closeSocket() {
  if (close(socket) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not close socket: " << strerror(savedErrno) << std::endl;
  }
  socket = -1;
}

void NetworkConnection::finalizeError() {
  if (finalized) {
    info(log) << "Skipping call to error handler, already finalized." << std::endl;
    return;
  }
  finalized = true;
  connectionError();
}

void NetworkConnection::finalizeFinished() {
  if (finalized) {
    info(log) << "Skipping call to finished handler, already finalized." << std::endl;
    return;
  }
  finalized = true;
  connectionFinished();
}

void NetworkConnection::startConnect() {
  assert(socket == -1);
  const addrinfo& address = connectionInfo.data;
  socket = ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                    address.ai_protocol);
  if (socket == -1) {
    const int savedErrno = errno;
    error(log) << "Could not create socket to " << connectionInfo << ": " << strerror(savedErrno)
               << std::endl;
    failConnection();
    return;
  }
  if (address.ai_family == AF_INET6) {
    // Lets an IPv4-mapped address be reached through this socket.
    const int off = 0;
    if (setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)) == -1) {
      const int savedErrno = errno;
      error(log) << "Could not enable IPv4 mapped address mode on client socket: "
                 << strerror(savedErrno) << std::endl;
      // Kept as the rest of the cluster has it: the line comes when the close worked, and the
      // socket is closed once more by failConnection().
      if (close(socket) == 0) {
        error(log) << "Closing socket during error handling failed." << std::endl;
      }
      failConnection();
      return;
    }
  }
  const int ret = connect(socket, address.ai_addr, address.ai_addrlen);
  const int savedErrno = errno;
  if (ret == 0) {
    socketConnected();
    if (loop) epollListen();
    return;
  }
  if (ret == -1 && savedErrno == EINPROGRESS) {
    state = CONNECTING;
    if (loop) epollListen();
    return;
  }
  if (ret == -1) {
    error(log) << "Could not connect to " << connectionInfo << ": " << strerror(savedErrno)
               << std::endl;
    failConnection();
    return;
  }
  assert(false);
}

void NetworkConnection::socketConnected() {
  if (!useTLS) {
    state = ESTABLISHED;
    if (establishedHandler) establishedHandler();
    return;
  }
  if (startSSL()) proceedSSLConnect();
}

void NetworkConnection::incReferenceCount() {
  assert(externalReferenceCount < (1u << 31u));
  ++externalReferenceCount;
}

void NetworkConnection::decReferenceCount() {
  assert(externalReferenceCount > 0);
  if (--externalReferenceCount != 0) return;
  // The callback that was held back while referenced is paid now.
  if (state == FINISHED) {
    info(log) << "Finished the connection from " << connectionInfo << "(after !refCount)"
              << std::endl;
    finalizeFinished();
  } else if (state == FAILED) {
    info(log) << "Error on the connection from " << connectionInfo << "(after !refCount)"
              << std::endl;
    finalizeError();
  }
}
