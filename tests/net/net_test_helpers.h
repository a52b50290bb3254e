// Helpers for the connection and packet tests: a connection whose insides the tests may look at,
// a recording command acceptor, loopback addresses and exact log lines. Tests only.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"
#include "tests/support/address_helpers.h"
#include "tests/support/test_helpers.h"

class TestConnection : public NetworkConnection {
 public:
  using NetworkConnection::decReferenceCount;
  using NetworkConnection::epollListen;
  using NetworkConnection::externalReferenceCount;
  using NetworkConnection::incReferenceCount;
  using NetworkConnection::LineBudget;
  using NetworkConnection::loop;
  using NetworkConnection::NetworkConnection;
  using NetworkConnection::parseCommand;
  using NetworkConnection::sendBuffer;
  using NetworkConnection::sendBufferSize;
  using NetworkConnection::sendRead;
  using NetworkConnection::sendWrite;
  using NetworkConnection::socket;
  using NetworkConnection::ssl;
  using NetworkConnection::startConnect;
  using NetworkConnection::state;

  /// The bytes waiting in the send buffer.
  std::string queued() const {
    return {reinterpret_cast<char*>(sendRead), reinterpret_cast<char*>(sendWrite)};
  }
};

/// Spells out the calls of a connection's four handlers as E(stablished), R(ead closed),
/// X (error) and F(inished).
struct HandlerCalls {
  std::string order;
  void attach(NetworkConnection& con) {
    con.setEstablishedHandler([this] { order += 'E'; });
    con.setReadClosedHandler([this] { order += 'R'; });
    con.setErrorHandler([this] { order += 'X'; });
    con.setFinishedHandler([this] { order += 'F'; });
  }
};

/// Hands `con`'s commands of `ids` to an acceptor that writes each down in `seen`, then runs
/// `after`.
inline void record(NetworkConnection& con, std::vector<std::string>* seen,
                   std::initializer_list<uint16_t> ids, std::function<void()> after = nullptr) {
  struct Recording : NetworkCmdAcceptor {
    std::vector<std::string>* seen;
    std::function<void()> after;
    CommandSet accepted;
    CommandSet acceptedCommands() const override { return accepted; }
    void operator()(NetworkCommand&& cmd) override {
      if (auto* e = std::get_if<CmdError>(&cmd)) {
        seen->push_back("error '" + e->message + "'");
      } else if (std::holds_alternative<CmdCompleted>(cmd)) {
        seen->push_back("completed");
      } else if (auto* r = std::get_if<CmdIngestContextRegistered>(&cmd)) {
        seen->push_back("registered " + std::to_string(r->context) + " '" + r->error + "'");
      } else {
        seen->push_back("index " + std::to_string(cmd.index()));
      }
      if (after) after();
    }
  };
  auto acceptor = std::make_unique<Recording>();
  acceptor->seen = seen;
  acceptor->after = std::move(after);
  for (uint16_t id : ids) acceptor->accepted.insert(id);
  con.setHandler(std::move(acceptor));
}

/// Queues one packet on `con`.
inline void queueOn(NetworkConnection& con, uint16_t command, const std::string& payload) {
  NetworkConnection::OutgoingPacket packet(&con, command, static_cast<uint32_t>(payload.size()));
  packet.writeBytes(payload.data(), payload.size());
}

/// Bytes written to `fd`'s peer that nobody has read yet.
inline int unreadBytes(int fd) {
  int count = 0;
  ioctl(fd, FIONREAD, &count);
  return count;
}

/// One log line of a connection, as the Log writes it.
inline std::string logLine(const std::string& level, const std::string& message) {
  return "{\"level\":\"" + level + "\", \"component\":\"NetworkConnection\", \"message\": \"" +
         message + "\"}";
}

inline std::string le16(uint16_t v) {
  return std::string(reinterpret_cast<const char*>(&v), 2);
}
inline std::string le32(uint32_t v) {
  return std::string(reinterpret_cast<const char*>(&v), 4);
}

/// A whole packet: header and `payload`.
inline std::string packet(uint16_t command, const std::string& payload) {
  return le32(static_cast<uint32_t>(payload.size() + 6)) + le16(command) + payload;
}

// Lines and a fixture shared by the connection and the packet-loop tests.
inline const std::string PEER = "127.0.0.1:9000";
inline const std::string FAILED_LINE = logLine("INFO", "Error on the connection from " + PEER);
inline const std::string REMOTE_CLOSED_LINE =
    logLine("INFO", "Remote end closed the connection from " + PEER);
inline const std::string FINISHED_LINE = logLine("INFO", "Finished the connection from " + PEER);
inline const std::string SKIPPED_LINE =
    logLine("INFO", "Skipping call to error handler, already finalized.");

// A plain connection over one end of a socketpair; the test holds the other end as raw bytes.
class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override { restart(); }
  ~ConnectionTest() override { close(peer); }
  /// A fresh connection and peer, with nothing logged or called yet.
  void restart() {
    signal(SIGCHLD, SIG_DFL);  // the loop ignores it, which would keep death tests from waiting
    con.reset();
    close(peer);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    con = std::make_unique<TestConnection>(log, loopbackInfo(9000), fds[0], false);
    peer = fds[1];
    out.str("");
    calls = HandlerCalls();
    calls.attach(*con);
  }

  std::vector<std::string> lines() const { return splitLines(out.str()); }
  void peerWrite(const std::string& bytes) {
    ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // What the peer got, and whether our end of stream followed it.
  std::string peerRead(bool* ended) {
    std::string all(1 << 16, '\0');
    const ssize_t n = read(peer, all.data(), all.size());
    char byte;
    *ended = read(peer, &byte, 1) == 0;
    return all.substr(0, std::max<ssize_t>(n, 0));
  }

  std::ostringstream out, loopOut;
  Log log{out}, loopLog{loopOut};
  EventLoop loop{loopLog};
  std::unique_ptr<TestConnection> con;
  int peer = -1;
  HandlerCalls calls;
  std::vector<std::string> seen;
};
