#include "protocol/network_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/network_packet.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;

// A plain connection over one end of a socketpair, with its queued bytes visible.
class PlainConnection : public NetworkConnection {
 public:
  PlainConnection(const Log& baseLog, int fd)
      : NetworkConnection(baseLog, ConnectionInfo(), fd, false) {}
  using NetworkConnection::parseCommand;
  std::string queued() const {
    return sendBuffer ? std::string(reinterpret_cast<const char*>(sendRead), sendWrite - sendRead)
                      : std::string();
  }
};

std::string le16(uint16_t v) { return std::string(reinterpret_cast<const char*>(&v), 2); }
std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string str16(const std::string& s) { return le16(static_cast<uint16_t>(s.size())) + s; }

EphemeralLogEvent eventOf(const std::string& text) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  return {p, p + text.size()};
}

// The "message" texts of the log lines in `out`, in order.
std::vector<std::string> messages(const std::string& out) {
  std::vector<std::string> texts;
  const std::string marker = "\"message\": \"";
  for (const std::string& line : splitLines(out)) {
    const auto at = line.find(marker) + marker.size();
    texts.push_back(line.substr(at, line.size() - at - 2));
  }
  return texts;
}

// Takes the four commands the agent accepts and writes down what it saw.
class RecordingHandler {
 public:
  explicit RecordingHandler(std::vector<std::string>* seenCommands) : seen(seenCommands) {}
  CommandSet acceptedCommands() const {
    CommandSet set;
    for (uint16_t id : std::initializer_list<uint16_t>{0, 3, 50, 51}) set.insert(id);
    return set;
  }
  void operator()(const CmdError& cmd) { seen->push_back("error '" + cmd.message + "'"); }
  void operator()(CmdIngestContextRegistered&& cmd) {
    seen->push_back("registered " + std::to_string(cmd.context) + " '" + cmd.error + "'");
  }
  void operator()(CmdIngestConfigAck&& cmd) {
    std::string text = "config ack " + std::to_string(cmd.context);
    for (const std::string& name : cmd.options) text += " '" + name + "'";
    seen->push_back(text);
  }
  void operator()(const CmdIngestLogAck& cmd) {
    seen->push_back("log ack " + std::to_string(cmd.leading) + " " +
                    std::to_string(cmd.sequence) + " " + std::to_string(cmd.trailing));
  }

 private:
  std::vector<std::string>* seen;
};

class ConnectionTest : public ::testing::Test {
 protected:
  ConnectionTest() { reconnect(); }
  ~ConnectionTest() override {
    con.reset();
    close(peer);
  }

  // A fresh connection, so that each case starts from one that hasn't failed.
  void reconnect() {
    con.reset();
    if (peer != -1) close(peer);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    peer = fds[1];
    con = std::make_unique<PlainConnection>(log, fds[0]);
    con->setHandler(std::make_unique<NetworkCmdHandler<RecordingHandler>>(&seen));
    out.str("");
  }

  // Runs one packet's payload through the parser, as the receive loop would.
  bool parse(uint16_t id, const std::string& payload) {
    const uint8_t* begin = reinterpret_cast<const uint8_t*>(payload.data());
    NetworkConnection::IncomingPacket packet(con.get(), begin, begin + payload.size());
    return con->parseCommand(id, packet);
  }

  const std::string extentError = "Incoming packet data would extend beyond packet.";
  const std::string failed = "Error on the connection from 0.0.0.0:0";  // the connection's own

  std::ostringstream out;
  Log log{out};
  int peer = -1;
  std::vector<std::string> seen;
  std::unique_ptr<PlainConnection> con;
};

// ---- What goes on the wire ----

using IngestCommandBytes = ConnectionTest;

TEST_F(IngestCommandBytes, HandCountedPackets) {
  const std::string ab = "ab", c = "c";
  const EphemeralLogEvent events[] = {eventOf(ab), eventOf(c)};
  con->send(CmdIngestLogEvents{1, 0x0807060504030201ull, events, 2});
  EXPECT_EQ(con->queued(), std::string("\x1D\0\0\0\x04\0"
                                       "\x01\0\0\0"
                                       "\x01\x02\x03\x04\x05\x06\x07\x08"
                                       "\x02\0\0\0"
                                       "\x02\0ab"
                                       "\x01\0c",
                                       29));
  reconnect();
  con->send(CmdRegisterIngestContext{"abc", 0});
  EXPECT_EQ(con->queued(), std::string("\x0E\0\0\0\x02\0\x03" "abc" "\0\0\0\0", 14));
  reconnect();
  con->send(CmdIngestLogEvents{0, 0, nullptr, 0});
  EXPECT_EQ(con->queued().size(), 22u);
}

TEST_F(IngestCommandBytes, LongestEventAndEmptyEventPass) {
  const std::string longest(65528, 'x'), empty;
  const EphemeralLogEvent events[] = {eventOf(longest), eventOf(empty)};
  con->send(CmdIngestLogEvents{0, 0, events, 2});
  EXPECT_EQ(con->usedSendBuffer(), 22u + (2 + 65528) + 2);
  EXPECT_EQ(con->queued().substr(22 + 2 + 65528), le16(0));
}

// What the agent only parses must come back as it was sent: this pins writer and reader of each
// command to the same field order.
TEST_F(IngestCommandBytes, PeerSideCommandsRoundTripThroughTheParser) {
  const std::string complaint = "go away";
  con->send(CmdError{complaint});
  con->send(CmdIngestContextRegistered{7, "bad token"});
  con->send(CmdIngestConfigAck{2, {"enable_ack", "", "timestamp_divider"}});
  con->send(CmdIngestLogAck{0xA1B2C3D4u, 0x1122334455667788ull, 0xBEEF});
  std::string bytes = con->queued();
  while (bytes.size() >= 6) {
    uint32_t length;
    memcpy(&length, bytes.data(), 4);
    ASSERT_GE(bytes.size(), length);
    EXPECT_TRUE(parse(static_cast<uint8_t>(bytes[4]), bytes.substr(6, length - 6)));
    bytes.erase(0, length);
  }
  EXPECT_TRUE(bytes.empty());
  EXPECT_THAT(seen, ElementsAre("error 'go away'", "registered 7 'bad token'",
                                "config ack 2 'enable_ack' '' 'timestamp_divider'",
                                "log ack 2712847316 1234605616436508552 48879"));
  EXPECT_EQ(out.str(), "");
}

using IngestCommandBytesDeathTest = ConnectionTest;

TEST_F(IngestCommandBytesDeathTest, OversizedFieldsStop) {
  const std::string tooLong(65529, 'x');
  const EphemeralLogEvent event = eventOf(tooLong);
  EXPECT_DEATH(con->send(CmdIngestLogEvents{0, 0, &event, 1}),
               "sizeof\\(uint64_t\\) \\+ len <= MAXIMUM_EVENT_LENGTH");
  EXPECT_DEATH(con->send(CmdRegisterIngestContext{std::string(256, 't'), 0}),
               "cmd.writeToken.size\\(\\) < 256");
}

// ---- Parsing what arrives ----

using CommandParsing = ConnectionTest;

TEST_F(CommandParsing, TruncatedFieldFailsTheConnectionAndIsNotDispatched) {
  const std::pair<uint16_t, std::string> cases[] = {
      {3, le32(1) + le16(5) + "abcd"},  // error text one byte short
      {3, le32(1) + "\x01"},            // length prefix cut in half
      {50, le32(1)},                    // count missing
      {50, le32(0) + le32(3) + str16("enable_ack") + str16("truncate_timestamp")},
      {51, le32(1) + std::string(9, '\0')},  // last field cut in half
  };
  for (const auto& [id, payload] : cases) {
    SCOPED_TRACE(testing::Message() << "id " << id << ", " << payload.size() << " bytes");
    reconnect();
    EXPECT_FALSE(parse(id, payload));
    // One extent error however many fields were short, then the connection's own report.
    EXPECT_THAT(messages(out.str()), ElementsAre(extentError, failed));
    EXPECT_TRUE(con->hasFailed());
  }
  EXPECT_TRUE(seen.empty());
}

TEST_F(CommandParsing, OnlyTheIncomingIngestCommandsHaveACase) {
  const std::string payload = le32(0) + le32(0) + le32(0) + le32(0) + "tail";
  for (uint16_t id : std::initializer_list<uint16_t>{2, 4, 49, 5, 63, 64, 65535})
    EXPECT_FALSE(parse(id, payload)) << id;
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(seen.empty());
  // Trailing bytes behind the last field are the peer's business.
  EXPECT_TRUE(parse(51, payload));
  EXPECT_THAT(seen, ElementsAre("log ack 0 0 0"));
  EXPECT_FALSE(con->hasFailed());
}

// ---- Accepted sets and dispatch ----

TEST(CommandSetBits, WordsForLowIdsVectorForHighOnes) {
  CommandSet set;
  for (uint16_t id : std::initializer_list<uint16_t>{0, 3, 50, 51}) set.insert(id);
  EXPECT_EQ(set.words[0], 0x000C000000000009ull);
  EXPECT_EQ(set.words[1] | set.words[2] | set.words[3], 0u);
  EXPECT_FALSE(set.contains(1));
  // Beyond 255 with an empty vector: not in the set, and nothing is read out of bounds.
  EXPECT_TRUE(set.extended.empty());
  EXPECT_FALSE(set.contains(256));
  EXPECT_FALSE(set.contains(65535));
  set.insert(256 + 64 + 5);
  EXPECT_THAT(set.extended, ElementsAre(0u, 1ull << 5));
  EXPECT_TRUE(set.contains(256 + 64 + 5));
  EXPECT_FALSE(set.contains(256 + 5));
}

// Through the real receive path: the handler's set decides what gets through.
TEST_F(ConnectionTest, PeerPacketsReachTheHandlerOnlyIfAccepted) {
  EventLoop loop(log);
  auto peerSends = [&](uint16_t id, const std::string& payload) {
    const std::string packet = le32(static_cast<uint32_t>(6 + payload.size())) + le16(id) + payload;
    ASSERT_EQ(write(peer, packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
  };
  con->registerAt(&loop);
  peerSends(51, le32(0) + std::string(8, '\x04') + le16(0));
  ASSERT_TRUE(runUntil(loop, [&] { return !seen.empty(); }));
  for (uint16_t id : std::initializer_list<uint16_t>{1, 49, 256, 65535}) {
    SCOPED_TRACE(id);
    con->deregister();
    reconnect();
    con->registerAt(&loop);
    peerSends(id, "");
    ASSERT_TRUE(runUntil(loop, [&] { return con->hasFailed(); }));
    EXPECT_THAT(messages(out.str()),
                ElementsAre("Received unaccepted command: " + std::to_string(id), failed));
  }
  con->deregister();
  EXPECT_THAT(seen, ElementsAre("log ack 0 289360691352306692 0"));
}

// Its set lets through a command that it has no overload for.
class CarelessHandler {
 public:
  CarelessHandler() = default;
  CommandSet acceptedCommands() const {
    CommandSet set;
    set.insert(CmdCompleted::ID);
    return set;
  }
  void operator()(const CmdIngestLogAck&) {}
};

TEST(CommandDispatchDeathTest, CommandWithoutOverloadStopsAtTheCatchAll) {
  NetworkCmdHandler<CarelessHandler> handler;
  handler(NetworkCommand(CmdIngestLogAck{0, 0, 0}));
  EXPECT_DEATH(handler(NetworkCommand(CmdCompleted{})), "false");
}

}  // namespace
