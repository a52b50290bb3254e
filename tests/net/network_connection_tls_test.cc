#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <csignal>
#include <cstdio>
#include <sstream>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "tests/net/net_test_helpers.h"
#include "tests/support/test_helpers.h"

#include "tests/support/tls_helpers.h"

namespace {

using ::testing::ElementsAre;
using State = NetworkConnection::State;

// The server profile, set up once for the process from a certificate made on the spot.
void initializeServerTls() {
  static bool done = false;
  if (done) return;
  done = true;
  TempDir dir;
  writeSelfSignedPair(dir.path());
  char previous[4096];
  ASSERT_NE(getcwd(previous, sizeof(previous)), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  std::ostringstream ignored;
  NetworkConnection::Initialize(Log(ignored), true, false);
  ASSERT_EQ(chdir(previous), 0);
}

// A TLS client connecting over loopback to a TLS (or plain) server made by the accepting
// constructor; each side logs on its own.
class TlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    initializeServerTls();
    listener = listenOnLoopback(&port);
    ASSERT_NE(listener, -1);
    client = std::make_unique<TestConnection>(clientLog, loopbackInfo(port), true);
    clientCalls.attach(*client);
    client->registerAt(&loop);
  }
  void TearDown() override {
    client.reset();
    server.reset();
    close(listener);
  }
  void acceptServer(bool tls, int bufferSize = 0) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    ASSERT_NE(fd, -1);
    if (bufferSize) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof(bufferSize));
    server = std::make_unique<TestConnection>(serverLog, loopbackInfo(1, "server"), fd, tls);
    serverCalls.attach(*server);
    server->setHandler(
        std::make_unique<RecordingAcceptor>(&serverSeen, std::initializer_list<uint16_t>{0, 1}));
  }
  void establish() {
    acceptServer(true);
    server->registerAt(&loop);
    ASSERT_TRUE(runUntil(loop, [&] { return clientCalls.established && serverCalls.established; }));
  }
  void send(NetworkConnection& con, uint16_t command, const std::string& payload) {
    NetworkConnection::OutgoingPacket packet(&con, command, static_cast<uint32_t>(payload.size()));
    packet.writeBytes(payload.data(), payload.size());
  }

  std::ostringstream clientOut, serverOut, loopOut;
  Log clientLog{clientOut}, serverLog{serverOut}, loopLog{loopOut};
  EventLoop loop{loopLog};
  uint16_t port = 0;
  int listener = -1;
  std::unique_ptr<TestConnection> client, server;
  HandlerCalls clientCalls, serverCalls;
  std::vector<std::string> clientSeen, serverSeen;
};

using TlsConnection = TlsTest;

TEST_F(TlsConnection, CarriesPacketsBothWaysThroughPartialWrites) {
  const int small = 16384;
  setsockopt(client->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  establish();
  EXPECT_EQ(client->connectionState(), State::ESTABLISHED);
  client->setHandler(
      std::make_unique<RecordingAcceptor>(&clientSeen, std::initializer_list<uint16_t>{3}));

  send(*client, 1, "");
  const std::string big(2 << 20, 'x');
  send(*client, 0, big);
  EXPECT_GT(client->usedSendBuffer(), 0u);  // the socket took only part; the rest waits
  send(*client, 0, "after");                // queued behind it, covered by the same retry
  send(*server, 3, le32(7) + le16(2) + "ok");
  ASSERT_TRUE(runUntil(loop, [&] { return serverSeen.size() == 3 && clientSeen.size() == 1; }));
  EXPECT_EQ(serverSeen[0], "completed");
  EXPECT_EQ(serverSeen[1], "error '" + big + "'");
  EXPECT_EQ(serverSeen[2], "error 'after'");
  EXPECT_THAT(clientSeen, ElementsAre("registered 7 'ok'"));
  EXPECT_EQ(clientCalls.established, 1);
  EXPECT_EQ(clientOut.str(), "");
  EXPECT_EQ(serverOut.str(), "");
}

TEST_F(TlsConnection, PeerCloseEndsTheConnectionIfTheHandlerFinishes) {
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  establish();
  client->setReadClosedHandler([&] {
    ++clientCalls.readClosed;
    client->finish();
  });
  server->finish();
  EXPECT_EQ(server->connectionState(), State::CLOSED_WRITE);
  server->deregister();  // the client gets there on the close alone, in one event
  ASSERT_TRUE(runUntil(loop, [&] { return clientCalls.finished > 0; }));
  EXPECT_EQ(client->connectionState(), State::FINISHED);
  server->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return serverCalls.finished > 0; }));
  EXPECT_EQ(server->connectionState(), State::FINISHED);
  // The close is reported once in ESTABLISHED and again, ending it, in CLOSED_WRITE.
  EXPECT_THAT(splitLines(clientOut.str()),
              ElementsAre(logLine("INFO", "Remote end closed the connection from " + peer),
                          logLine("INFO", "Remote end closed the connection from " + peer),
                          logLine("INFO", "Finished the connection from " + peer)));
  EXPECT_EQ(clientCalls.readClosed, 1);
  EXPECT_EQ(clientCalls.error + serverCalls.error, 0);
}

TEST_F(TlsConnection, PeerCloseWhileOurReplyIsQueuedFailsTheConnection) {
  const int small = 16384;
  setsockopt(client->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  acceptServer(true, small);
  server->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return clientCalls.established && serverCalls.established; }));
  // The reply is more than the socket takes, so it is still queued when the close is read.
  client->setHandler(
      std::make_unique<RecordingAcceptor>(&clientSeen, std::initializer_list<uint16_t>{1},
                                          [&] { send(*client, 0, std::string(2 << 20, 'r')); }));
  client->setReadClosedHandler([&] {
    ++clientCalls.readClosed;
    client->finish();
  });
  send(*server, 1, "");
  server->finish();
  server->deregister();  // reads nothing more
  ASSERT_TRUE(runUntil(loop, [&] { return client->hasFailed(); }));
  EXPECT_THAT(clientSeen, ElementsAre("completed"));
  EXPECT_EQ(clientCalls.readClosed, 1);
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  EXPECT_THAT(splitLines(clientOut.str()),
              ElementsAre(logLine("INFO", "Remote end closed the connection from " + peer),
                          logLine("INFO", "Remote end closed the connection from " + peer),
                          logLine("ERROR", "SSL_ERROR_ZERO_RETURN in unexpected connection state."),
                          logLine("INFO", "Error on the connection from " + peer)));
}

TEST_F(TlsConnection, ReadLoopGoesOnAfterTheParserFailedTheConnection) {
  establish();
  send(*client, 5, "");
  ASSERT_TRUE(runUntil(loop, [&] { return server->hasFailed(); }));
  const std::vector<std::string> lines = splitLines(serverOut.str());
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], logLine("ERROR", "Received unaccepted command: 5"));
  EXPECT_EQ(lines[1], logLine("INFO", "Error on the connection from server:1"));
  EXPECT_TRUE(startsWithMessage(lines[2], "ERROR", "SSL_read returned unknown error, "))
      << lines[2];
  EXPECT_EQ(lines[4], logLine("INFO", "Skipping call to error handler, already finalized."));
  EXPECT_EQ(serverCalls.error, 1);
}

// Counts the reads that reach the socket under OpenSSL.
long countSocketReads(BIO* bio, int operation, const char*, size_t, int, long, int result,
                      size_t*) {
  if (operation == (BIO_CB_READ | BIO_CB_RETURN)) {
    ++*reinterpret_cast<int*>(BIO_get_callback_arg(bio));
  }
  return result;
}

TEST_F(TlsConnection, ABurstOfRecordsIsReadInOneGo) {
  // Acknowledgements are small records that arrive in bursts; reading each one in two system
  // calls (header, then body) would double the agent's reads.
  establish();
  client->setHandler(
      std::make_unique<RecordingAcceptor>(&clientSeen, std::initializer_list<uint16_t>{1}));
  client->deregister();
  const int records = 100;
  for (int i = 0; i < records; ++i) send(*server, 1, "");  // one record each
  ASSERT_TRUE(runUntil(loop, [&] { return server->usedSendBuffer() == 0; }));

  int reads = 0;
  BIO* socketBio = SSL_get_rbio(client->ssl);
  BIO_set_callback_arg(socketBio, reinterpret_cast<char*>(&reads));
  BIO_set_callback_ex(socketBio, countSocketReads);
  client->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return clientSeen.size() == records; }));
  BIO_set_callback_ex(socketBio, nullptr);
  // The burst, then the read that finds the socket empty; a few more if it came in pieces.
  EXPECT_LE(reads, 6);
  EXPECT_EQ(clientCalls.error + serverCalls.error, 0);
}

TEST_F(TlsConnection, HandshakeAgainstAPlainServerFails) {
  acceptServer(false);
  send(*server, 0, "plain");  // no loop yet: waits in the buffer
  server->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return client->hasFailed(); }));
  EXPECT_EQ(clientCalls.established, 0);
  EXPECT_EQ(clientCalls.error, 1);
  const std::string first = splitLines(clientOut.str()).front();
  EXPECT_TRUE(startsWithMessage(first, "ERROR", "SSL_connect returned unknown error, error:"))
      << first;
}

// Initialize runs once per process, so each case gets a process of its own.
TEST(TlsInitializeDeathTest, ProfilesAndTheirFiles) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  signal(SIGCHLD, SIG_DFL);
  TempDir empty;  // no certificate, no key
  Log log(std::cerr);
  EXPECT_EXIT(
      {
        if (chdir(empty.path().c_str()) != 0) exit(2);
        NetworkConnection::Initialize(log, false, true);  // the client needs no file
        NetworkConnection::Initialize(log, true, false);  // a second call changes nothing
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_DEATH(
      {
        if (chdir(empty.path().c_str()) != 0) exit(2);
        NetworkConnection::Initialize(log, true, false);
      },
      "Could not load server certificate: (.|\n)*`false' failed");
}

}  // namespace
