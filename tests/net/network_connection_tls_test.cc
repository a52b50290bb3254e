#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "net/network_connection.h"
#include "tests/net/net_test_helpers.h"

namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using enum NetworkConnection::State;

// A TLS client connecting over loopback to a TLS (or plain) server made by the accepting
// constructor; each side logs on its own. Both send buffers are small, so that large packets stay
// queued in part.
class TlsConnection : public ::testing::Test {
 protected:
  // The server profile, made once for the process from a certificate made on the spot; a second
  // Initialize changes nothing.
  static void SetUpTestSuite() {
    TempDir dir;
    const ProcessResult made =
        runProcess({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=localhost", "-days", "1",
                    "-keyout", dir.file("brindlewood.key"), "-out", dir.file("brindlewood.crt")});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    std::ostringstream ignored;
    NetworkConnection::Initialize(Log(ignored), true, false);
    std::filesystem::current_path(previous);
  }
  void SetUp() override {
    listener = listenOnLoopback(&port);
    ASSERT_NE(listener, -1);
    client = std::make_unique<TestConnection>(clientLog, loopbackInfo(port), true);
    setsockopt(client->socket, SOL_SOCKET, SO_SNDBUF, &SMALL, sizeof(SMALL));
    clientCalls.attach(*client);
    client->registerAt(&loop);
  }
  void TearDown() override { close(listener); }
  void acceptServer(bool tls) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    ASSERT_NE(fd, -1);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &SMALL, sizeof(SMALL));
    server = std::make_unique<TestConnection>(serverLog, loopbackInfo(1, "server"), fd, tls);
    serverCalls.attach(*server);
    record(*server, &serverSeen, {0, 1});
    server->registerAt(&loop);
  }
  // Registering the client again in the middle of its handshake, as a move between loops does,
  // must take the handshake up where it stood.
  void establish() {
    acceptServer(true);
    ASSERT_TRUE(runUntil(loop, [&] { return client->connectionState() == SSL_CONNECTING; }));
    client->registerAt(&loop);
    ASSERT_TRUE(runUntil(loop, [&] { return clientCalls.order + serverCalls.order == "EE"; }));
  }
  static constexpr int SMALL = 16384;
  std::ostringstream clientOut, serverOut, loopOut;
  Log clientLog{clientOut}, serverLog{serverOut}, loopLog{loopOut};
  EventLoop loop{loopLog};
  uint16_t port = 0;
  int listener = -1;
  std::unique_ptr<TestConnection> client, server;
  HandlerCalls clientCalls, serverCalls;
  std::vector<std::string> clientSeen, serverSeen;
};

// One session: a burst of small records (acknowledgements come so) is read in one go, not in two
// system calls per record; large packets go both ways through partial writes; an unaccepted
// command ends it, and the read loop then goes on and fails once more on the closed descriptor.
// Every pass leaves a stale entry in the thread's error queue, which each TLS step must clear
// before it asks OpenSSL what its last call meant.
TEST_F(TlsConnection, SessionCarriesBurstsAndLargePacketsUntilAnUnacceptedCommand) {
  char noiseKey;
  loop.addInterval(0, &noiseKey, [] { return ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH), false; });
  establish();
  record(*client, &clientSeen, {1, 3});
  client->deregister();
  for (int i = 0; i < 100; ++i) queueOn(*server, 1, "");  // one record each
  ASSERT_TRUE(runUntil(loop, [&] { return server->usedSendBuffer() == 0; }));
  int reads = 0;
  BIO* socketBio = SSL_get_rbio(client->ssl);
  BIO_set_callback_arg(socketBio, reinterpret_cast<char*>(&reads));
  BIO_set_callback_ex(
      socketBio, [](BIO* bio, int op, const char*, size_t, int, long, int result, size_t*) -> long {
        if (op == (BIO_CB_READ | BIO_CB_RETURN))
          ++*reinterpret_cast<int*>(BIO_get_callback_arg(bio));
        return result;
      });
  client->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return clientSeen.size() == 100; }));
  BIO_set_callback_ex(socketBio, nullptr);
  EXPECT_LE(reads, 6);  // the burst, the read that finds the socket empty, a few if in pieces

  queueOn(*client, 1, "");
  const std::string big(2 << 20, 'x');
  queueOn(*client, 0, big);
  EXPECT_GT(client->usedSendBuffer(), 0u);  // the socket took only part; the rest waits
  queueOn(*client, 0, "after");             // queued behind it, covered by the same retry
  queueOn(*server, 3, le32(7) + le16(2) + "ok");
  ASSERT_TRUE(runUntil(loop, [&] { return serverSeen.size() == 3 && clientSeen.size() == 101; }));
  EXPECT_THAT(serverSeen, ElementsAre("completed", "error '" + big + "'", "error 'after'"));
  EXPECT_EQ(clientSeen.back(), "registered 7 'ok'");
  EXPECT_EQ(clientOut.str() + serverOut.str(), "");

  queueOn(*client, 5, "");
  ASSERT_TRUE(runUntil(loop, [&] { return server->hasFailed(); }));
  EXPECT_THAT(splitLines(serverOut.str()),
              ElementsAre(logLine("ERROR", "Received unaccepted command: 5"),
                          logLine("INFO", "Error on the connection from server:1"),
                          HasSubstr("\"SSL_read returned unknown error, error:"), _, SKIPPED_LINE));
  EXPECT_EQ(clientCalls.order + serverCalls.order, "EEX");
  loop.removeInterval(&noiseKey);
}

// The peer sends a packet and closes; our handler answers the packet and finishes on the close.
// With an empty queue our close goes out at once and the peer's, reported again, ends it; with the
// answer still queued the repeated report finds no state to go to.
class TlsPeerClose : public TlsConnection, public ::testing::WithParamInterface<bool> {};

TEST_P(TlsPeerClose, EndsOrFailsTheConnectionByWhatIsQueued) {
  const bool queued = GetParam();
  establish();
  record(*client, &clientSeen, {1},
         [&] { queueOn(*client, 0, std::string(queued ? 2 << 20 : 0, 'r')); });
  client->setReadClosedHandler([&] { clientCalls.order += 'R', client->finish(); });
  queueOn(*server, 1, "");
  server->finish();
  EXPECT_EQ(server->connectionState(), CLOSED_WRITE);
  server->deregister();  // reads nothing more
  ASSERT_TRUE(runUntil(loop, [&] { return client->isDown(); }));
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  const std::string closed = logLine("INFO", "Remote end closed the connection from " + peer);
  std::vector<std::string> expected = {closed, closed,
                                       logLine("INFO", "Finished the connection from " + peer)};
  if (queued) {
    expected.back() = logLine("ERROR", "SSL_ERROR_ZERO_RETURN in unexpected connection state.");
    expected.push_back(logLine("INFO", "Error on the connection from " + peer));
  }
  EXPECT_EQ(splitLines(clientOut.str()), expected);
  EXPECT_EQ(clientCalls.order, queued ? "ERX" : "ERF");
}
INSTANTIATE_TEST_SUITE_P(AnswerQueuedOrNot, TlsPeerClose, ::testing::Bool());

TEST_F(TlsConnection, HandshakeAgainstAPlainServerFails) {
  acceptServer(false);
  queueOn(*server, 0, "plain");
  ASSERT_TRUE(runUntil(loop, [&] { return client->hasFailed(); }));
  EXPECT_EQ(clientCalls.order, "X");
  EXPECT_THAT(splitLines(clientOut.str()).front(),
              HasSubstr("\"SSL_connect returned unknown error, error:"));
}

// Initialize runs once per process, so each case gets a process of its own. A fatal failure
// writes its reason, then the first line OpenSSL queued about it, without its newline.
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
      "Could not load server certificate: \"}\n[^\n]*No such file[^\n\\\\]*\"}\n(.|\n)*`false' "
      "failed");
}

}  // namespace
