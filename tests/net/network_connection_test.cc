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
