#include "net/network_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <csignal>
#include <sstream>

#include "loop/event_loop.h"
#include "tests/net/net_test_helpers.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = NetworkConnection::State;

const std::string PEER = "127.0.0.1:9000";
const std::string FAILED_LINE = logLine("INFO", "Error on the connection from " + PEER);
const std::string REMOTE_CLOSED_LINE =
    logLine("INFO", "Remote end closed the connection from " + PEER);
const std::string FINISHED_LINE = logLine("INFO", "Finished the connection from " + PEER);
const std::string SKIPPED_LINE =
    logLine("INFO", "Skipping call to error handler, already finalized.");

// A plain connection over one end of a socketpair; the test holds the other end as raw bytes.
class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGCHLD, SIG_DFL);  // the loop ignores it, which would keep death tests from waiting
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    con = std::make_unique<TestConnection>(log, loopbackInfo(9000), fds[0], false);
    peer = fds[1];
    out.str("");
    calls = HandlerCalls();
    calls.attach(*con);
  }
  void TearDown() override {
    con.reset();
    if (peer != -1) close(peer);
    peer = -1;
  }
  void restart() {
    TearDown();
    SetUp();
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
  void queuePacket(uint16_t command, const std::string& payload) {
    NetworkConnection::OutgoingPacket packet(con.get(), command, static_cast<uint32_t>(payload.size()));
    packet.writeBytes(payload.data(), payload.size());
  }
  void acceptIds(std::initializer_list<uint16_t> ids, std::function<void()> after = nullptr) {
    con->setHandler(std::make_unique<RecordingAcceptor>(&seen, ids, std::move(after)));
  }

  std::ostringstream out, loopOut;
  Log log{out}, loopLog{loopOut};
  EventLoop loop{loopLog};
  std::unique_ptr<TestConnection> con;
  int peer = -1;
  HandlerCalls calls;
  std::vector<std::string> seen;
};

using ConnectionStates = ConnectionTest;

TEST_F(ConnectionStates, FinishFromEachStateWithNothingQueued) {
  const std::string early = logLine("ERROR", "Connection terminated before being established.");
  const struct {
    State from, to;
    std::vector<std::string> lines;
    int errors, finishes;
  } cases[] = {
      {State::ESTABLISHED, State::CLOSED_WRITE, {}, 0, 0},
      {State::CLOSED_READ, State::FINISHED, {FINISHED_LINE}, 0, 1},
      // Taken literally: finishing again after our side closed shuts it down once more.
      {State::CLOSED_READ_CLOSING_WRITE, State::CLOSED_WRITE, {}, 0, 0},
      {State::CLOSING_WRITE, State::CLOSED_WRITE, {}, 0, 0},
      {State::CLOSED_WRITE, State::CLOSED_WRITE, {}, 0, 0},
      {State::CONNECTING, State::FAILED, {early, FAILED_LINE}, 1, 0},
      {State::SSL_CONNECTING, State::FAILED, {early, FAILED_LINE}, 1, 0},
      {State::SSL_ACCEPTING, State::FAILED, {early, FAILED_LINE}, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.from));
    restart();
    con->state = c.from;
    con->finish();
    EXPECT_EQ(con->connectionState(), c.to);
    EXPECT_EQ(lines(), c.lines);
    EXPECT_EQ(calls.error, c.errors);
    EXPECT_EQ(calls.finished, c.finishes);
  }

  restart();
  con->failConnection();
  out.str("");
  con->finish();
  EXPECT_EQ(con->connectionState(), State::FAILED);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ConnectionStates, PeerClosesWhileEstablished) {
  con->registerAt(&loop);
  shutdown(peer, SHUT_WR);  // a stream socket's close; closing the pair would add a hang-up
  ASSERT_TRUE(runUntil(loop, [&] { return calls.readClosed > 0; }));
  EXPECT_EQ(con->connectionState(), State::CLOSED_READ);
  EXPECT_TRUE(con->isDown());
  con->finish();
  EXPECT_EQ(con->connectionState(), State::FINISHED);
  EXPECT_EQ(con->socket, -1);
  EXPECT_EQ(con->loop, nullptr);
  EXPECT_THAT(lines(), ElementsAre(REMOTE_CLOSED_LINE, FINISHED_LINE));
  EXPECT_EQ(calls.finished, 1);

  // Finishing a finished connection only complains, and the failure after it calls nobody.
  out.str("");
  con->finish();
  EXPECT_EQ(con->connectionState(), State::CLOSED_WRITE);
  con->failConnection();
  EXPECT_THAT(
      lines(),
      ElementsAre(logLine("ERROR", "Could not shutdown socket writing: Bad file descriptor"),
                  FAILED_LINE, SKIPPED_LINE));
  EXPECT_EQ(calls.error, 0);
}

TEST_F(ConnectionStates, PeerClosesWhileWeDrainOurQueue) {
  queuePacket(3, "abc");  // no loop yet: the packet stays in the buffer
  con->finish();
  EXPECT_EQ(con->connectionState(), State::CLOSING_WRITE);
  EXPECT_FALSE(con->shouldSend());
  shutdown(peer, SHUT_WR);
  con->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return calls.finished > 0; }));
  EXPECT_EQ(calls.readClosed, 1);
  EXPECT_EQ(con->connectionState(), State::FINISHED);
  bool ended = false;
  EXPECT_EQ(peerRead(&ended), packet(3, "abc"));
  EXPECT_TRUE(ended);
  EXPECT_THAT(lines(), ElementsAre(REMOTE_CLOSED_LINE, FINISHED_LINE));
}

TEST_F(ConnectionStates, PeerCloseAfterOursEndsWithoutLookingFurther) {
  con->finish();
  con->finish();  // a second shutdown of the same direction is harmless
  EXPECT_EQ(con->connectionState(), State::CLOSED_WRITE);
  close(peer);
  peer = -1;
  con->descriptorAvailable(EPOLLIN | EPOLLOUT | EPOLLHUP);
  EXPECT_EQ(con->connectionState(), State::FINISHED);
  EXPECT_THAT(lines(), ElementsAre(REMOTE_CLOSED_LINE, FINISHED_LINE));
  EXPECT_EQ(calls.finished, 1);
}

TEST_F(ConnectionStates, ReadAndHangUpTogetherParseFirstThenFail) {
  acceptIds({1});
  peerWrite(packet(1, ""));
  con->descriptorAvailable(EPOLLIN | EPOLLHUP);
  EXPECT_THAT(seen, ElementsAre("completed"));
  EXPECT_THAT(lines(),
              ElementsAre(logLine("ERROR", "Remote side hung up unexpectedly."), FAILED_LINE));
  EXPECT_EQ(calls.error, 1);
}

TEST_F(ConnectionStates, ShouldSendFollowsStateAndQueue) {
  EXPECT_TRUE(con->shouldSend(0));  // no send buffer yet
  queuePacket(1, std::string(10, 'x'));
  EXPECT_FALSE(con->shouldSend(16));
  EXPECT_TRUE(con->shouldSend(17));
  con->registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return con->usedSendBuffer() == 0; }));
  EXPECT_FALSE(con->shouldSend(0));  // allocated and empty
}

TEST_F(ConnectionStates, FinalizersRunOnceAndReferencesHoldThemBack) {
  con->incReferenceCount();
  con->incReferenceCount();
  con->failConnection();
  con->decReferenceCount();
  EXPECT_EQ(calls.error, 0);
  con->decReferenceCount();
  EXPECT_EQ(calls.error, 1);
  con->failConnection();
  con->incReferenceCount();
  con->decReferenceCount();
  const std::string late =
      logLine("INFO", "Error on the connection from " + PEER + "(after !refCount)");
  EXPECT_THAT(lines(),
              ElementsAre(FAILED_LINE, late, FAILED_LINE, SKIPPED_LINE, late, SKIPPED_LINE));
  EXPECT_EQ(calls.error, 1);
  con->registerAt(&loop);  // no socket: stays off the loop
  EXPECT_EQ(con->loop, nullptr);

  restart();
  con->registerAt(&loop);
  con->incReferenceCount();
  con->finish();
  close(peer);
  peer = -1;
  ASSERT_TRUE(runUntil(loop, [&] { return con->connectionState() == State::FINISHED; }));
  EXPECT_EQ(calls.finished, 0);
  con->decReferenceCount();
  EXPECT_EQ(calls.finished, 1);
  EXPECT_EQ(lines().back(),
            logLine("INFO", "Finished the connection from " + PEER + "(after !refCount)"));
}

TEST(ConnectionLineBudget, BurstOfFiftyOneThenFiveASecond) {
  TestConnection::LineBudget budget;
  int written = 0;
  for (int i = 0; i < 60; ++i) written += budget.take();
  EXPECT_EQ(written, 51);
  budget.lastTime -= 1000000000;  // as if a second had passed since the last attempt
  written = 0;
  for (int i = 0; i < 10; ++i) written += budget.take();
  EXPECT_EQ(written, 5);
}

using ConnectionConnecting = ConnectionTest;

TEST_F(ConnectionConnecting, ConnectsAndSends) {
  uint16_t port = 0;
  const int listener = listenOnLoopback(&port);
  TestConnection client(log, loopbackInfo(port), false);
  HandlerCalls clientCalls;
  clientCalls.attach(client);
  EXPECT_EQ(client.connectionState(), State::CONNECTING);
  EXPECT_FALSE(client.shouldSend());
  client.registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return clientCalls.established > 0; }));
  const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  { NetworkConnection::OutgoingPacket packet(&client, 1, 0); }
  ASSERT_TRUE(runUntil(loop, [&] { return client.usedSendBuffer() == 0; }));
  std::string received(16, '\0');
  received.resize(std::max<ssize_t>(read(accepted, received.data(), received.size()), 0));
  EXPECT_EQ(received, packet(1, ""));
  close(accepted);
  close(listener);
}

TEST_F(ConnectionConnecting, RefusedConnectionFailsWithTheReason) {
  uint16_t port = 0;
  close(listenOnLoopback(&port));  // a port that nobody listens on any more
  TestConnection client(log, loopbackInfo(port), false);
  HandlerCalls clientCalls;
  clientCalls.attach(client);
  client.registerAt(&loop);
  ASSERT_TRUE(runUntil(loop, [&] { return client.hasFailed(); }));
  EXPECT_EQ(clientCalls.error, 1);
  const std::string address = "127.0.0.1:" + std::to_string(port);
  EXPECT_THAT(lines(), ElementsAre(logLine("ERROR", "Connection to " + address +
                                                        " failed: Connection refused"),
                                   logLine("INFO", "Error on the connection from " + address)));
}

using PacketReceiving = ConnectionTest;

TEST_F(PacketReceiving, BadHeadersFailAsSoonAsTheyAreKnown) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {le32(5), "Received packet too small (5), terminating connection"},
      {le32(268435457), "Received package too large (268435457), terminating connection"},
      {packet(49, ""), "Received unaccepted command: 49"},
      {packet(256, ""), "Received unaccepted command: 256"},
      {packet(65535, ""), "Received unaccepted command: 65535"},
  };
  for (const auto& [bytes, message] : cases) {
    SCOPED_TRACE(message);
    restart();
    acceptIds({0, 1, 3});
    con->registerAt(&loop);
    peerWrite(bytes);  // nothing more ever arrives
    ASSERT_TRUE(runUntil(loop, [&] { return con->hasFailed(); }));
    EXPECT_THAT(lines(), ElementsAre(logLine("ERROR", message), FAILED_LINE));
  }
}

TEST_F(PacketReceiving, LargestLengthGrowsTheBufferAndWaits) {
  acceptIds({1});
  con->registerAt(&loop);
  peerWrite(le32(268435456) + le16(1));
  ASSERT_TRUE(runUntil(loop, [&] { return con->recvBufferSize > 65536; }));
  EXPECT_EQ(con->recvBufferSize, 268435462u);
  EXPECT_EQ(con->connectionState(), State::ESTABLISHED);
  EXPECT_THAT(lines(), ElementsAre(logLine("INFO", "Growing receive buffer to 268435462")));
}

TEST_F(PacketReceiving, WithoutHandlerPacketsAreDroppedAndTheConnectionLives) {
  con->registerAt(&loop);
  peerWrite(packet(3, "") + packet(1, "xy"));
  ASSERT_TRUE(runUntil(loop, [&] { return lines().size() == 2; }));
  EXPECT_THAT(lines(),
              ElementsAre(logLine("ERROR", "Received 3 packet of length 6, but no handler set."),
                          logLine("ERROR", "Received 1 packet of length 8, but no handler set.")));
  EXPECT_EQ(con->connectionState(), State::ESTABLISHED);
}

TEST_F(PacketReceiving, TruncatedFieldIsReportedOnceThenTheParseFails) {
  acceptIds({3});
  con->registerAt(&loop);
  peerWrite(packet(3, le32(7) + le16(10) + "ab"));  // the string claims ten bytes
  ASSERT_TRUE(runUntil(loop, [&] { return con->hasFailed(); }));
  EXPECT_THAT(lines(),
              ElementsAre(logLine("ERROR", "Incoming packet data would extend beyond packet."),
                          FAILED_LINE, logLine("ERROR", "Failed to parse incoming command: 3"),
                          FAILED_LINE, SKIPPED_LINE));
  EXPECT_THAT(seen, IsEmpty());
  EXPECT_EQ(calls.error, 1);
}

TEST_F(PacketReceiving, PacketsArriveWholeWhateverTheReadsCutThem) {
  acceptIds({0, 1, 3});
  con->registerAt(&loop);
  // Extra bytes behind a packet's fields are skipped with it.
  const std::string stream = packet(0, "hello") + packet(1, "") +
                             packet(3, le32(7) + le16(2) + "no" + "extra") + packet(1, "");
  std::vector<size_t> completedAt;
  for (size_t i = 0; i < stream.size(); ++i) {
    const size_t before = seen.size();
    peerWrite(stream.substr(i, 1));
    ASSERT_TRUE(runUntil(loop, [&] { return unreadBytes(con->socket) == 0; }));
    if (seen.size() != before) completedAt.push_back(i + 1);
  }
  EXPECT_THAT(seen, ElementsAre("error 'hello'", "completed", "registered 7 'no'", "completed"));
  EXPECT_THAT(completedAt, ElementsAre(11, 17, 36, 42));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(PacketReceiving, HandlerThatFinishesStillGetsTheBufferedPackets) {
  acceptIds({1}, [&] {
    if (con->connectionState() == State::ESTABLISHED) con->finish();
  });
  con->registerAt(&loop);
  peerWrite(packet(1, "") + packet(1, ""));
  ASSERT_TRUE(runUntil(loop, [&] { return seen.size() == 2; }));
  EXPECT_EQ(con->connectionState(), State::CLOSED_WRITE);
}

using ConnectionDeathTest = ConnectionTest;

TEST_F(ConnectionDeathTest, MisuseStopsTheProcess) {
  EXPECT_DEATH(con->startConnect(), "`socket == -1' failed");
  EXPECT_DEATH(con->decReferenceCount(), "`externalReferenceCount > 0' failed");
  EXPECT_DEATH(con->shouldSend(1ull << 32), "`acceptableBuffer < \\(1ull << 32\\)' failed");
  EXPECT_DEATH(con->epollListen(), "`loop' failed");
  con->externalReferenceCount = 1u << 31u;
  EXPECT_DEATH(con->incReferenceCount(), "`externalReferenceCount < \\(1u << 31u\\)' failed");
  EXPECT_DEATH(con.reset(), "`!externalReferenceCount' failed");
  con->externalReferenceCount = 0;
  con->state = static_cast<State>(5);
  EXPECT_DEATH(con->descriptorAvailable(EPOLLIN), "`false' failed");
}

}  // namespace
