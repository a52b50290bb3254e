#include "protocol/ingest_contexts_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A plain connection over a socketpair that is never registered: what the map sends stays queued.
class PlainConnection : public NetworkConnection {
 public:
  PlainConnection(const Log& baseLog, int fd)
      : NetworkConnection(baseLog, ConnectionInfo(), fd, false) {}

  // The queued packets as "<id>:<payload>", consumed.
  std::vector<std::string> takeSent() {
    std::vector<std::string> packets;
    while (sendBuffer && sendWrite - sendRead >= 6) {
      uint32_t length;
      uint16_t id;
      memcpy(&length, sendRead, 4);
      memcpy(&id, sendRead + 4, 2);
      packets.push_back(std::to_string(id) + ":" +
                        std::string(reinterpret_cast<const char*>(sendRead) + 6, length - 6));
      sendRead += length;
    }
    return packets;
  }
};

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// What a registration of `token` as `context` looks like in takeSent().
std::string registration(const std::string& token, uint32_t context) {
  return "2:" + std::string(1, static_cast<char>(token.size())) + token + le32(context);
}

LogEventSourceConfiguration source(const std::string& token) {
  LogEventSourceConfiguration config;
  config.enableAck = true;
  config.writeToken = token;
  return config;
}

class IngestContexts : public ::testing::Test {
 protected:
  PlainConnection* connect() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    peers.push_back(fds[1]);
    connections.push_back(std::make_unique<PlainConnection>(Log(connectionOut), fds[0]));
    return connections.back().get();
  }
  ~IngestContexts() override {
    connections.clear();
    for (int fd : peers) close(fd);
  }

  void makeReady(PlainConnection* con, uint32_t context) {
    map.onConfigAck(con, CmdIngestConfigAck{context, {ENABLE_ACK, TRUNCATE_TIMESTAMP,
                                                      TIMESTAMP_DIVIDER}});
  }

  std::ostringstream out;
  std::ostringstream connectionOut;
  IngestContextsMap map{Log(out).with("component", "IngestContextsMap")};
  std::vector<int> peers;
  std::vector<std::unique_ptr<PlainConnection>> connections;
};

// Each token is asked for once per connection, however many sources share it.
TEST_F(IngestContexts, NewTokenIsRegisteredOnEveryConnection) {
  PlainConnection* one = connect();
  PlainConnection* two = connect();
  map.addConnection(one);
  map.addConnection(two);
  EXPECT_EQ(map.registerContext(source("tok")), 0u);
  LogEventSourceConfiguration same = source("tok");
  same.timestampDivider = 5;
  EXPECT_EQ(map.registerContext(same), 0u);
  EXPECT_EQ(map.registerContext(source("next")), 1u);
  EXPECT_THAT(one->takeSent(), ElementsAre(registration("tok", 0), registration("next", 1)));
  EXPECT_THAT(two->takeSent(), ElementsAre(registration("tok", 0), registration("next", 1)));
  // The second source's settings are dropped with it.
  EXPECT_EQ(map.configurations()[0].timestampDivider, 1000000u);
}

// A new connection asks for everything at once. One that lands on a dead one's address keeps
// the old entry, bits included, and asks all the same.
TEST_F(IngestContexts, AddedConnectionAsksForEveryContextInIdOrder) {
  map.registerContext(source("first"));
  map.registerContext(source("second"));
  PlainConnection* con = connect();
  map.addConnection(con);
  EXPECT_THAT(con->takeSent(), ElementsAre(registration("first", 0), registration("second", 1)));
  EXPECT_FALSE(map.isContextReady(0, con));
  makeReady(con, 1);
  map.addConnection(con);
  EXPECT_TRUE(map.isContextReady(1, con));
  EXPECT_THAT(con->takeSent(), ElementsAre(registration("first", 0), registration("second", 1)));
}

TEST_F(IngestContexts, AcceptedTokenIsAnsweredWithTheConfiguration) {
  map.registerContext(source("a"));
  map.registerContext(source("b"));
  PlainConnection* con = connect();
  map.addConnection(con);
  con->takeSent();
  map.onContextRegistered(con, CmdIngestContextRegistered{1, ""});
  // 93 bytes on the wire; the options go in name order, not in the order they were put in.
  const std::string expected = std::string("49:") + le32(1) + le32(3) +
                               std::string("\x0A\x00", 2) + "enable_ack" +
                               std::string("\x01\0\0\0\0\0\0\0", 8) +
                               std::string("\x11\x00", 2) + "timestamp_divider" +
                               std::string("\x40\x42\x0F\0\0\0\0\0", 8) +
                               std::string("\x12\x00", 2) + "truncate_timestamp" +
                               std::string("\x01\0\0\0\0\0\0\0", 8) + le32(0);
  EXPECT_EQ(expected.size(), 3u + 93 - 6);
  EXPECT_THAT(con->takeSent(), ElementsAre(expected));
  EXPECT_EQ(con->usedSendBuffer(), 0u);
  EXPECT_EQ(out.str(), "");
}

TEST_F(IngestContexts, RefusedTokenIsLoggedThroughTheMapsLog) {
  PlainConnection* con = connect();
  map.addConnection(con);
  // The id is not looked at on refusal, so an unknown one does no harm.
  map.onContextRegistered(con, CmdIngestContextRegistered{7, "no such token"});
  EXPECT_EQ(out.str(),
            "{\"level\":\"ERROR\", \"component\":\"IngestContextsMap\", \"message\": "
            "\"Ingester context / write token registration failed: no such token\"}\n");
  EXPECT_THAT(con->takeSent(), IsEmpty());
  EXPECT_EQ(connectionOut.str(), "");
}

TEST_F(IngestContexts, FullAckMakesTheContextReadyOnThatConnectionOnly) {
  map.registerContext(source("a"));
  PlainConnection* one = connect();
  PlainConnection* two = connect();
  map.addConnection(one);
  map.addConnection(two);
  map.onConfigAck(one, CmdIngestConfigAck{0, {TRUNCATE_TIMESTAMP, ENABLE_ACK, TIMESTAMP_DIVIDER,
                                              ENABLE_ACK}});
  EXPECT_TRUE(map.isContextReady(0, one));
  EXPECT_FALSE(map.isContextReady(0, two));
  EXPECT_FALSE(map.isContextReady(1, one));  // beyond the bits: false, no exception
  EXPECT_EQ(out.str(), "");
  // A context registered later starts out not ready everywhere.
  map.registerContext(source("b"));
  EXPECT_FALSE(map.isContextReady(1, one));
  EXPECT_TRUE(map.isContextReady(0, one));
}

TEST_F(IngestContexts, WrongNamesAreLoggedMissingFirstThenUnasked) {
  struct Case {
    std::vector<std::string> names;
    std::vector<std::string> logged;
  };
  const std::string missing = "Ingester context configuration failed. Ingester did not "
                              "acknowledge option ";
  const std::string unasked = "Ingester context configuration failed. Ingester replied with not "
                              "requested config option ";
  const Case cases[] = {
      {{"bogus"},
       {missing + "enable_ack.", missing + "timestamp_divider.", missing + "truncate_timestamp.",
        unasked + "bogus."}},
      {{ENABLE_ACK, "zzz", TRUNCATE_TIMESTAMP, TIMESTAMP_DIVIDER, "aaa"},
       {unasked + "aaa.", unasked + "zzz."}},
      {{TIMESTAMP_DIVIDER}, {missing + "enable_ack.", missing + "truncate_timestamp."}},
  };
  map.registerContext(source("a"));
  for (const Case& c : cases) {
    PlainConnection* con = connect();
    map.addConnection(con);
    out.str("");
    map.onConfigAck(con, CmdIngestConfigAck{0, c.names});
    std::vector<std::string> logged;
    for (const std::string& line : splitLines(out.str())) {
      const std::string prefix = "{\"level\":\"ERROR\", \"component\":\"IngestContextsMap\", "
                                 "\"message\": \"";
      ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
      logged.push_back(line.substr(prefix.size(), line.size() - prefix.size() - 2));
    }
    EXPECT_EQ(logged, c.logged);
    EXPECT_FALSE(map.isContextReady(0, con));
  }
}

using IngestContextsDeathTest = IngestContexts;

// Nothing catches these: as in the agent, the exception ends the process.
TEST_F(IngestContextsDeathTest, IdsNeverGivenOutEndTheProcess) {
  for (const char* token : {"a", "b", "c"}) map.registerContext(source(token));
  PlainConnection* con = connect();
  map.addConnection(con);
  // The death test machinery catches exceptions itself; terminate as an uncaught one would.
  auto uncaught = [](auto&& statement) {
    try {
      statement();
    } catch (...) {
      std::terminate();
    }
  };
  EXPECT_DEATH(uncaught([&] { map.onContextRegistered(con, CmdIngestContextRegistered{7, ""}); }),
               "out_of_range");
  EXPECT_DEATH(uncaught([&] { makeReady(con, 7); }), "out_of_range");
  EXPECT_DEATH(uncaught([&] { makeReady(connect(), 0); }), "map::at");
}

// Asking about a connection that was never added leaves an empty entry behind, one that a later
// registration finds without its bits.
TEST_F(IngestContextsDeathTest, EntryMadeByAQuestionBreaksTheNextRegistration) {
  map.registerContext(source("a"));
  PlainConnection* stranger = connect();
  EXPECT_FALSE(map.isContextReady(0, stranger));
  EXPECT_DEATH(map.registerContext(source("b")), "state.size\\(\\) == context \\+ 1");
}

}  // namespace
