// Packets that a hostile peer can send cheaply and that must cost the agent no more than a
// failed connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class PlainConnection : public NetworkConnection {
 public:
  PlainConnection(const Log& baseLog, int fd)
      : NetworkConnection(baseLog, ConnectionInfo(), fd, false) {}
  using NetworkConnection::parseCommand;
};

struct ConfigAckRecorder {
  std::vector<size_t>* optionCounts;
  CommandSet acceptedCommands() const {
    CommandSet set;
    set.insert(CmdIngestConfigAck::ID);
    return set;
  }
  void operator()(CmdIngestConfigAck&& cmd) { optionCounts->push_back(cmd.options.size()); }
};

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

class HostilePacket : public ::testing::Test {
 protected:
  HostilePacket() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    peer = fds[1];
    con = std::make_unique<PlainConnection>(log, fds[0]);
    con->setHandler(std::make_unique<NetworkCmdHandler<ConfigAckRecorder>>(
        ConfigAckRecorder{&optionCounts}));
  }
  ~HostilePacket() override {
    con.reset();
    close(peer);
  }

  bool parse(uint16_t id, const std::string& payload) {
    const auto* begin = reinterpret_cast<const uint8_t*>(payload.data());
    NetworkConnection::IncomingPacket packet(con.get(), begin, begin + payload.size());
    return con->parseCommand(id, packet);
  }

  std::ostringstream out;
  Log log{out};
  int peer = -1;
  std::vector<size_t> optionCounts;
  std::unique_ptr<PlainConnection> con;
};

// A count of four billion names in an eight-byte payload once made the parser append that many
// empty strings (an allocation failure, or the machine's memory) before refusing the packet.
TEST_F(HostilePacket, ConfigAckCountBeyondThePacketCostsOnlyTheConnection) {
  EXPECT_FALSE(parse(CmdIngestConfigAck::ID, le32(0) + le32(0xFFFFFFFF)));
  EXPECT_TRUE(con->hasFailed());
  EXPECT_TRUE(optionCounts.empty());
  const std::vector<std::string> lines = splitLines(out.str());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("Incoming packet data would extend beyond packet."));
  EXPECT_THAT(lines[1], HasSubstr("Error on the connection from"));
}

// The count is still read as far as the packet holds names: a short last name fails only then.
TEST_F(HostilePacket, ConfigAckNamesUpToTheCountStillParse) {
  const std::string two = le32(1) + le32(2) + std::string("\x01\0a\x00\0", 5);
  EXPECT_TRUE(parse(CmdIngestConfigAck::ID, two));
  EXPECT_THAT(optionCounts, ElementsAre(2u));
  EXPECT_FALSE(parse(CmdIngestConfigAck::ID, le32(1) + le32(3) + std::string("\x01\0a\x00\0", 5)));
  EXPECT_THAT(optionCounts, ElementsAre(2u));
}

}  // namespace
