// The TLS side of NetworkConnection: the process-wide context and the five non-blocking steps
// that replace the plain read, write and shutdown. Each step ends by telling the loop what
// OpenSSL waits for, so in TLS mode these steps, not the buffers, set the epoll interest.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cassert>
#include <climits>
#include <string>

#include "net/network_connection.h"

bool NetworkConnection::initialized = false;
SSL_CTX* NetworkConnection::sslCtx = nullptr;

namespace {

// Hands OpenSSL's queued lines to the log; 0 stops OpenSSL after the first one.
int logQueuedLine(const char* text, size_t length, void* argument) {
  std::string line(text, length);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  error(*static_cast<Log*>(argument)) << line << std::endl;
  return 0;
}

void logQueue(Log& log) {
  ERR_print_errors_cb(logQueuedLine, &log);
}

std::string sslErrorText() {
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof(text));
  return text;
}

void reportFatal(Log& log, const char* message) {
  error(log) << message << std::endl;
  logQueue(log);
}

// SSL_write and SSL_read take an int; the rest is offered on the next pass.
int clampToInt(int64_t size) {
  return static_cast<int>(std::min<int64_t>(size, INT_MAX));
}

}  // namespace

void NetworkConnection::Initialize(const Log& baseLog, bool server, bool keepLibraryDefaults) {
  if (initialized) return;
  initialized = true;
  Log log = baseLog.with("component", "NetworkConnection");

  assert(!sslCtx);
  OPENSSL_init_ssl(0, nullptr);
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

  sslCtx = SSL_CTX_new(TLS_method());
  if (!sslCtx) {
    reportFatal(log, "Could not create SSL context: ");
    assert(false);
  }
  if (!keepLibraryDefaults) {
    if (SSL_CTX_set_min_proto_version(sslCtx, TLS1_3_VERSION) != 1) {
      reportFatal(log, "Could not set TLS 1.3 as minimum SSL version: ");
      assert(false);
    }
    if (SSL_CTX_set_max_proto_version(sslCtx, TLS1_3_VERSION) != 1) {
      reportFatal(log, "Could not set TLS 1.3 as maximum SSL version: ");
      assert(false);
    }
    if (SSL_CTX_set_ciphersuites(sslCtx, "TLS_AES_128_GCM_SHA256") != 1) {
      reportFatal(log, "Could not set valid ciphersuites list: ");
      assert(false);
    }
  }
  // The send buffer slides and grows between retries, and a partial write has to count as
  // progress so that sendRead can advance.
  const long mode = SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;
  if ((SSL_CTX_set_mode(sslCtx, mode) & mode) != mode) {
    reportFatal(log, "Could not set SSL operation mode: ");
    assert(false);
  }
  // Without read-ahead OpenSSL reads each record in two system calls, header and body; with it
  // one read takes whatever has arrived. The read loops still run until OpenSSL wants more.
  SSL_CTX_set_read_ahead(sslCtx, 1);
  if (server) {
    if (SSL_CTX_use_certificate_chain_file(sslCtx, "brindlewood.crt") != 1) {
      reportFatal(log, "Could not load server certificate: ");
      assert(false);
    }
    if (SSL_CTX_use_PrivateKey_file(sslCtx, "brindlewood.key", SSL_FILETYPE_PEM) != 1) {
      reportFatal(log, "Could not load server certificate key: ");
      assert(false);
    }
  }
}

void NetworkConnection::logSSLQueue() {
  logQueue(log);
}

bool NetworkConnection::startSSL() {
  ssl = SSL_new(sslCtx);
  if (!ssl) {
    error(log) << "Failed to create SSL context" << std::endl;
    logSSLQueue();
    failConnection();
    return false;
  }
  if (SSL_set_fd(ssl, socket) == 0) {
    error(log) << "Failed to set socket fd" << std::endl;
    logSSLQueue();
    failConnection();
    return false;
  }
  return true;
}

// Stale entries in the thread's error queue would make SSL_get_error misread the next call, so
// every step starts from an empty queue.

void NetworkConnection::proceedSSLConnect() {
  proceedSSLHandshake(SSL_connect, SSL_CONNECTING, "Remote end closed connection, error ",
                      "SSL_connect returned unknown error, ");
}

void NetworkConnection::proceedSSLAccept() {
  proceedSSLHandshake(SSL_accept, SSL_ACCEPTING, "Remote end closed connection, during accept, ",
                      "SSL_accept returned unknown error, ");
}

void NetworkConnection::proceedSSLHandshake(int (*step)(SSL*), State waiting, const char* closedText,
                                            const char* failedText) {
  ERR_clear_error();
  const int ret = step(ssl);
  if (ret == 1) {
    state = ESTABLISHED;
    if (establishedHandler) establishedHandler();
    epollListen();  // starts the first read, or sends what was queued meanwhile
    return;
  }
  if (ret == 0) {
    error(log) << closedText << sslErrorText() << std::endl;
    failConnection();
    return;
  }
  assert(ret < 0);
  if (awaitSSL(ret, failedText)) state = waiting;
}

bool NetworkConnection::awaitSSL(int ret, const char* failedText) {
  switch (SSL_get_error(ssl, ret)) {
    case SSL_ERROR_WANT_READ:
      loop->setEpollListener(socket, EPOLLIN, this);
      return true;
    case SSL_ERROR_WANT_WRITE:
      loop->setEpollListener(socket, EPOLLOUT, this);
      return true;
    default:
      error(log) << failedText << sslErrorText() << std::endl;
      failConnection();
      return false;
  }
}

void NetworkConnection::proceedSSLWrite() {
  int64_t usedSendBuffer = sendBuffer ? sendWrite - sendRead : 0;
  assert(usedSendBuffer > 0);
  int ret;
  // Write for as long as OpenSSL takes data: one wake-up per burst, not per record.
  while (true) {
    ERR_clear_error();
    ret = SSL_write(ssl, sendRead, clampToInt(usedSendBuffer));
    if (ret <= 0) break;
    assert(ret <= usedSendBuffer);
    sendRead += ret;
    // Only CLOSING_WRITE: a queue drained after the peer's close sends no close from here.
    if (state == CLOSING_WRITE && (!sendBuffer || sendRead == sendWrite)) proceedSSLShutdown();
    if (!sendBuffer || sendRead == sendWrite) return;
    usedSendBuffer = sendWrite - sendRead;
  }
  // Once the queue is empty the interest stays as it was; the next event reads and resets it.
  awaitSSL(ret, "SSL_write returned unknown error, ");
}

void NetworkConnection::proceedSSLRead() {
  // Unlike the plain path, one event drains everything OpenSSL has.
  while (true) {
    prepareRecvBuffer();
    const int64_t freeRecvBuffer = this->freeRecvBuffer();
    assert(freeRecvBuffer > 0);
    ERR_clear_error();
    const int ret = SSL_read(ssl, recvWrite, clampToInt(freeRecvBuffer));
    if (ret > 0) {
      assert(ret <= freeRecvBuffer);
      recvWrite += ret;
      parseRecvBuffer();
      continue;
    }
    switch (SSL_get_error(ssl, ret)) {
      case SSL_ERROR_WANT_READ:
        loop->setEpollListener(socket, EPOLLIN, this);
        return;
      case SSL_ERROR_WANT_WRITE:
        loop->setEpollListener(socket, EPOLLOUT, this);
        return;
      case SSL_ERROR_ZERO_RETURN: {
        static thread_local LineBudget remoteClosedLines;
        if (remoteClosedLines.take()) {
          info(log) << "Remote end closed the connection from " << connectionInfo << std::endl;
        }
        // The read repeats after the handler on purpose: a handler that finishes with nothing
        // queued reaches CLOSED_WRITE, and the next read reports the close again and ends it.
        if (state == ESTABLISHED) {
          state = CLOSED_READ;
          if (readClosedHandler) readClosedHandler();
          continue;
        }
        if (state == CLOSING_WRITE) {
          state = CLOSED_READ_CLOSING_WRITE;
          if (readClosedHandler) readClosedHandler();
          continue;
        }
        if (state == CLOSED_WRITE) {
          assert(socket != -1);
          static thread_local LineBudget finishedLines;
          closeFinished(finishedLines.take());
          return;
        }
        error(log) << "SSL_ERROR_ZERO_RETURN in unexpected connection state." << std::endl;
        failConnection();
        return;
      }
      default:
        error(log) << "SSL_read returned unknown error, " << sslErrorText() << std::endl;
        failConnection();
        return;
    }
  }
}

void NetworkConnection::proceedSSLShutdown() {
  // One call only: our close is on its way, and the peer's answer arrives through the read.
  ERR_clear_error();
  const int ret = SSL_shutdown(ssl);
  state = CLOSED_WRITE;
  if (ret >= 0) return;
  awaitSSL(ret, "SSL_shutdown returned unknown error, ");
}
