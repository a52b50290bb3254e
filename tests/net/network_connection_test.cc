#include "net/network_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <algorithm>

#include "tests/net/net_test_helpers.h"

namespace {

using ::testing::ElementsAre;
using namespace std::chrono_literals;
using State = NetworkConnection::State;
using enum NetworkConnection::State;

using ConnectionStates = ConnectionTest;

// Each row puts the connection into `from`, after queueing a packet or letting the peer send one
// or close its side, then finishes it or delivers the epoll `event`.
TEST_F(ConnectionStates, Transitions) {
  enum Setup { NONE, QUEUED, SENDS, CLOSES };
  const int FINISH = 0;
  const struct {
    const char* name;
    State from;
    Setup setup;
    int event;
    State to;
    const char* trace;
  } rows[] = {
      {"finish", ESTABLISHED, NONE, FINISH, CLOSED_WRITE, "."},
      {"finish, queue waits", ESTABLISHED, QUEUED, FINISH, CLOSING_WRITE, ""},
      {"finish after the peer", CLOSED_READ, NONE, FINISH, FINISHED, "fF."},
      // Taken literally: finishing again shuts our side down once more.
      {"finish again", CLOSED_READ_CLOSING_WRITE, NONE, FINISH, CLOSED_WRITE, "."},
      {"finish closing", CLOSING_WRITE, NONE, FINISH, CLOSED_WRITE, "."},
      {"finish closed", CLOSED_WRITE, NONE, FINISH, CLOSED_WRITE, "."},
      {"finish finished", FINISHED, NONE, FINISH, CLOSED_WRITE, "."},
      {"finish failed", FAILED, NONE, FINISH, FAILED, ""},
      {"finish connecting", CONNECTING, NONE, FINISH, FAILED, "exX."},
      {"finish handshake", SSL_CONNECTING, NONE, FINISH, FAILED, "exX."},
      {"finish accepting", SSL_ACCEPTING, NONE, FINISH, FAILED, "exX."},
      {"peer closes", ESTABLISHED, CLOSES, EPOLLIN, CLOSED_READ, "rR"},
      {"peer closes as we drain", CLOSING_WRITE, CLOSES, EPOLLIN, CLOSED_READ_CLOSING_WRITE, "rR"},
      // The end of stream ends it; neither EPOLLOUT nor the hang-up is looked at.
      {"peer closes after us", CLOSED_WRITE, CLOSES, EPOLLIN | EPOLLOUT | EPOLLHUP, FINISHED,
       "rfF."},
      {"event after the end", FINISHED, CLOSES, EPOLLIN, FINISHED, ""},
      {"event after failing", FAILED, CLOSES, EPOLLIN | EPOLLHUP, FAILED, ""},
      {"drain", ESTABLISHED, QUEUED, EPOLLOUT, ESTABLISHED, ">"},
      {"drained, close", CLOSING_WRITE, QUEUED, EPOLLOUT, CLOSED_WRITE, ">."},
      {"drained, finished", CLOSED_READ_CLOSING_WRITE, QUEUED, EPOLLOUT, FINISHED, "fF>."},
      {"nothing to read", ESTABLISHED, NONE, EPOLLIN, ESTABLISHED, "d"},
      {"nothing to write", ESTABLISHED, NONE, EPOLLOUT, ESTABLISHED, "w"},
      {"read, then hang-up", ESTABLISHED, SENDS, EPOLLIN | EPOLLHUP, FAILED, "hxX."},
      {"error", ESTABLISHED, NONE, EPOLLERR, FAILED, "nxX."},
      {"connected", CONNECTING, NONE, EPOLLOUT, ESTABLISHED, "E"},
      {"connect, hang-up", CONNECTING, NONE, EPOLLOUT | EPOLLHUP, FAILED, "hxX."},
      {"connect error", CONNECTING, NONE, EPOLLERR, FAILED, "nxX."},
  };
  // The steps as letters: the log lines in their order (r remote end closed, f finished, x error
  // on the connection, e terminated early, h hung up, n no error retrieved, d no data, w zero
  // bytes written), then the handler calls (E, R, X, F), then what the peer read: > our packet,
  // . our end of stream.
  const std::string known[] = {
      REMOTE_CLOSED_LINE,
      FINISHED_LINE,
      FAILED_LINE,
      logLine("ERROR", "Connection terminated before being established."),
      logLine("ERROR", "Remote side hung up unexpectedly."),
      logLine("ERROR", "Socket error condition was indicated, but no error was retrieved."),
      logLine("ERROR", "Data unexpectedly not available."),
      logLine("ERROR", "write(2) claims to have written zero bytes.")};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    restart();
    seen.clear();
    record(*con, &seen, {1});
    con->registerAt(&loop);
    if (row.setup == QUEUED) queueOn(*con, 3, "abc");
    if (row.setup == SENDS) peerWrite(packet(1, ""));
    if (row.setup == CLOSES) shutdown(peer, SHUT_WR);  // closing the pair would add a hang-up
    con->state = row.from;
    row.event == FINISH ? con->finish() : con->descriptorAvailable(row.event);
    EXPECT_EQ(con->connectionState(), row.to);
    std::string trace;
    for (const std::string& line : lines()) {
      const auto* at = std::find(std::begin(known), std::end(known), line);
      trace += at == std::end(known) ? line : std::string(1, "rfxehndw"[at - known]);
    }
    bool ended = false;
    const std::string got = peerRead(&ended);
    EXPECT_EQ(trace + calls.order + (got == packet(3, "abc") ? ">" : got) + (ended ? "." : ""),
              row.trace);
    EXPECT_EQ(seen.size(), row.setup == SENDS ? 1u : 0u);  // read and parsed before anything else
    EXPECT_EQ(con->shouldSend(), row.to == ESTABLISHED);
    // Going down drops the socket and leaves the loop.
    const bool down = row.to == FINISHED || row.to == FAILED;
    EXPECT_TRUE(!down || row.from == row.to || (con->socket == -1 && con->loop == nullptr));
    const std::string before = out.str();
    con.reset();  // closes the socket unless the state says it is closed, silently either way
    char byte;
    EXPECT_EQ(read(peer, &byte, 1), down && row.from == row.to ? -1 : 0);
    EXPECT_EQ(out.str(), before);
  }
}

// On the loop: the registration moves from one loop to the next; thousands of small packets slide
// through the receive buffer; the loop asks for what each state needs: writable while data waits,
// readable until the peer's end of stream, which is read once only.
TEST_F(ConnectionStates, OnTheLoop) {
  EXPECT_TRUE(con->shouldSend(0));  // no send buffer yet
  queueOn(*con, 3, "abc");
  EXPECT_FALSE(con->shouldSend(9));
  EXPECT_TRUE(con->shouldSend(10));
  EventLoop other(loopLog);
  con->registerAt(&other);
  con->registerAt(&loop);
  EXPECT_FALSE(runUntil(
      other, [&] { return con->usedSendBuffer() == 0; }, 20ms));
  record(*con, &seen, {0});
  std::string stream;
  for (int i = 0; i < 8000; ++i) stream += packet(0, std::to_string(i));
  peerWrite(stream);
  ASSERT_TRUE(runUntil(loop, [&] { return seen.size() == 8000 || con->hasFailed(); }));
  EXPECT_EQ(seen.back(), "error '7999'");
  EXPECT_FALSE(con->shouldSend(0));  // allocated and empty
  queueOn(*con, 3, "def");
  con->finish();
  shutdown(peer, SHUT_WR);
  ASSERT_TRUE(runUntil(loop, [&] { return calls.order.ends_with('F'); }));
  EXPECT_EQ(calls.order, "RF");
  bool ended = false;
  EXPECT_EQ(peerRead(&ended), packet(3, "abc") + packet(3, "def"));
  EXPECT_TRUE(ended);
  EXPECT_THAT(lines(), ElementsAre(REMOTE_CLOSED_LINE, FINISHED_LINE));
}

TEST_F(ConnectionStates, FinalCallbackOnceAndHeldBackByReferences) {
  con->incReferenceCount();
  con->incReferenceCount();
  con->failConnection();
  con->decReferenceCount();
  EXPECT_EQ(calls.order, "");
  con->decReferenceCount();
  con->failConnection();
  con->incReferenceCount();
  con->decReferenceCount();
  const std::string late =
      logLine("INFO", "Error on the connection from " + PEER + "(after !refCount)");
  EXPECT_THAT(lines(),
              ElementsAre(FAILED_LINE, late, FAILED_LINE, SKIPPED_LINE, late, SKIPPED_LINE));
  EXPECT_EQ(calls.order, "X");
  con->registerAt(&loop);  // no socket: stays off the loop
  EXPECT_EQ(con->loop, nullptr);

  restart();
  con->incReferenceCount();
  con->finish();
  shutdown(peer, SHUT_WR);
  con->descriptorAvailable(EPOLLIN);
  EXPECT_EQ(con->connectionState(), FINISHED);
  EXPECT_EQ(calls.order, "");
  con->decReferenceCount();
  con->failConnection();  // error and finish exclude each other
  EXPECT_EQ(calls.order, "F");
  EXPECT_EQ(lines()[2],
            logLine("INFO", "Finished the connection from " + PEER + "(after !refCount)"));

  restart();  // finished after the peer, the socket is gone: finishing again only complains
  con->state = CLOSED_READ;
  con->finish();
  con->finish();
  EXPECT_THAT(lines(), ::testing::Contains(logLine(
                           "ERROR", "Could not shutdown socket writing: Bad file descriptor")));
}

TEST(ConnectionLineBudget, BurstOfFiftyOneThenFiveASecond) {
  TestConnection::LineBudget budget;
  const auto written = [&](int attempts) {
    int lines = 0;
    while (attempts--) lines += budget.take();
    return lines;
  };
  EXPECT_EQ(written(60), 51);
  budget.lastTime -= 1000000000;  // as if a second had passed since the last attempt
  EXPECT_EQ(written(10), 5);
}

using ConnectionConnecting = ConnectionTest;

// Connecting to real addresses: a listener, a closed port, a datagram socket (connected at once),
// a socket that can't be made and an address that is cut short. The immediate failures happen in
// the constructor, before any handler could be set.
TEST_F(ConnectionConnecting, ConnectOutcomes) {
  uint16_t open = 0, closed = 0;
  const int listener = listenOnLoopback(&open);
  close(listenOnLoopback(&closed));
  const std::string to = "127.0.0.1:" + std::to_string(closed);
  const struct {
    const char* name;
    uint16_t port;
    int socktype, protocol;
    socklen_t length;
    State first, last;
    const char* calls;
    std::string line;
  } rows[] = {
      {"accepted", open, SOCK_STREAM, IPPROTO_TCP, 16, CONNECTING, ESTABLISHED, "E", ""},
      {"refused", closed, SOCK_STREAM, IPPROTO_TCP, 16, CONNECTING, FAILED, "X",
       "Connection to " + to + " failed: Connection refused"},
      {"datagram", closed, SOCK_DGRAM, 0, 16, ESTABLISHED, ESTABLISHED, "", ""},
      {"no socket", closed, SOCK_DGRAM, IPPROTO_TCP, 16, FAILED, FAILED, "",
       "Could not create socket to " + to + ": Protocol not supported"},
      {"short address", closed, SOCK_STREAM, IPPROTO_TCP, 8, FAILED, FAILED, "",
       "Could not connect to " + to + ": Invalid argument"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    out.str("");
    ConnectionInfo info = loopbackInfo(row.port);
    info.data.ai_socktype = row.socktype;
    info.data.ai_protocol = row.protocol;
    info.data.ai_addrlen = row.length;
    TestConnection client(log, info, false);
    HandlerCalls clientCalls;
    clientCalls.attach(client);
    EXPECT_EQ(client.connectionState(), row.first);
    client.registerAt(&loop);
    runUntil(loop, [&] { return client.connectionState() != CONNECTING; });
    EXPECT_EQ(client.connectionState(), row.last);
    EXPECT_EQ(clientCalls.order, row.calls);
    const std::vector<std::string> failed = {logLine("ERROR", row.line),
                                             logLine("INFO", "Error on the connection from " + to)};
    EXPECT_EQ(lines(), row.last == FAILED ? failed : std::vector<std::string>());
    EXPECT_EQ(client.socket == -1, row.last == FAILED);
  }
  close(listener);
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
  shutdown(peer, SHUT_WR);
  con->state = CLOSED_READ;  // the peer's end of stream can't come twice
  EXPECT_DEATH(con->descriptorAvailable(EPOLLIN), "`false' failed");
  con->state = static_cast<State>(5);
  EXPECT_DEATH(con->descriptorAvailable(EPOLLIN), "`false' failed");
}

}  // namespace
