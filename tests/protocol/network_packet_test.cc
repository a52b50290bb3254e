#include "protocol/network_packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "tests/net/net_test_helpers.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = NetworkConnection::State;
using Packet = NetworkConnection::OutgoingPacket;
using Reader = NetworkConnection::IncomingPacket;

ConnectionInfo ipv6Loopback(uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_loopback;
  addrinfo entry{};
  entry.ai_family = AF_INET6;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addrlen = sizeof(address);
  entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
  return ConnectionInfo(entry, ConnectionString("localhost", std::to_string(port)));
}

// The raw socket addresses, in network order where the kernel keeps it.
const std::string IPV4_9000 =
    std::string("\x02\x00\x23\x28\x7f\x00\x00\x01", 8) + std::string(8, '\0');
const std::string IPV6_443 =
    std::string("\x0a\x00\x01\xbb", 4) + std::string(4 + 15, '\0') + "\x01" + std::string(4, '\0');

// A plain connection without a loop: what a packet writes stays in its send buffer.
class PacketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGCHLD, SIG_DFL);
    fresh();
  }
  void TearDown() override { close(peer); }
  void fresh() {
    if (peer != -1) close(peer);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    con = std::make_unique<TestConnection>(log, loopbackInfo(9000), fds[0], false);
    peer = fds[1];
    out.str("");
  }
  std::vector<std::string> lines() const { return splitLines(out.str()); }

  std::ostringstream out;
  Log log{out};
  std::unique_ptr<TestConnection> con;
  int peer = -1;
};

using PacketFraming = PacketTest;

TEST_F(PacketFraming, EveryEncodingByteForByteAndBack) {
  const ConnectionInfo v4 = loopbackInfo(9000);
  const ConnectionInfo v6 = ipv6Loopback(443);
  const std::vector<const ConnectionInfo*> both = {&v6, &v4};
  EXPECT_EQ(Packet::structureSize(v4), 17u);
  EXPECT_EQ(Packet::structureSize(v6), 29u);
  EXPECT_EQ(Packet::structureSize(both), 50u);
  const uint8_t token[] = {'t', 'o', 'k'};
  {
    Packet packet(con.get(), 0x0102, 1 + 2 + 4 + 8 + 4 + 4 + 17 + 50);
    packet.write<uint8_t>(0xab);
    packet.write<uint16_t>(0x1234);
    packet.write<uint32_t>(0xdeadbeef);
    packet.write<uint64_t>(0x0102030405060708);
    packet.writeString<uint16_t>(std::string("hi"));
    packet.writeString<uint8_t>(token, token + 3);
    packet.writeStructure(v4);
    packet.writeStructure(both);
  }
  const std::string payload = std::string("\xab\x34\x12\xef\xbe\xad\xde", 7) +
                              "\x08\x07\x06\x05\x04\x03\x02\x01" + std::string("\x02\x00hi", 4) +
                              "\x03tok" + "\x04" + IPV4_9000 + std::string("\x02\x00\x00\x00", 4) +
                              "\x06" + IPV6_443 + "\x04" + IPV4_9000;
  ASSERT_EQ(con->queued(), packet(0x0102, payload));
  EXPECT_EQ(unreadBytes(peer), 0);  // no loop: nobody was told, nothing was sent

  const std::string bytes = con->queued();
  const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
  Reader reader(con.get(), begin + 6, begin + bytes.size());
  EXPECT_EQ(reader.read<uint8_t>(), 0xab);
  EXPECT_EQ(reader.read<uint16_t>(), 0x1234);
  EXPECT_EQ(reader.read<uint32_t>(), 0xdeadbeef);
  EXPECT_EQ(reader.read<uint64_t>(), 0x0102030405060708u);
  EXPECT_EQ(reader.readString<uint16_t>(), "hi");
  EXPECT_EQ(reader.readString<uint8_t>(), "tok");
  const ConnectionInfo readV4 = reader.readStructure();
  EXPECT_EQ(reader.read<uint32_t>(), 2u);
  const std::unique_ptr<ConnectionInfo> readV6 = reader.readStructurePointer();
  ASSERT_NE(readV6, nullptr);
  EXPECT_EQ(*readV6, v6);
  EXPECT_EQ(readV4, v4);
  std::ostringstream text;
  text << readV4 << " " << *readV6;
  EXPECT_EQ(text.str(), "127.0.0.1:9000 00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01:443");
  EXPECT_EQ(reader.readRest(), "\x04" + IPV4_9000);
  EXPECT_TRUE(reader.complete());
  EXPECT_TRUE(lines().empty());
}

TEST_F(PacketFraming, SendBufferSlidesBeforeItGrows) {
  { Packet packet(con.get(), 1, 0); }
  EXPECT_EQ(con->sendBufferSize, 65536u);

  fresh();
  {
    Packet packet(con.get(), 1, 65537 - 6);
    packet.writeBytes(std::string(65531, 'x').data(), 65531);
  }
  EXPECT_EQ(con->sendBufferSize, 131072u);

  fresh();
  const std::string first(40000 - 6, 'a');
  {
    Packet packet(con.get(), 1, static_cast<uint32_t>(first.size()));
    packet.writeBytes(first.data(), first.size());
  }
  con->sendRead += 30000;  // as if the socket had taken that much
  const std::string second(30000 - 6, 'b');
  {
    Packet packet(con.get(), 2, static_cast<uint32_t>(second.size()));
    packet.writeBytes(second.data(), second.size());
  }
  EXPECT_EQ(con->sendBufferSize, 65536u);
  EXPECT_EQ(con->sendRead, con->sendBuffer.get());
  EXPECT_EQ(con->queued(), std::string(10000, 'a') + packet(2, second));
  const std::string third(30000 - 6, 'c');
  {
    Packet packet(con.get(), 3, static_cast<uint32_t>(third.size()));
    packet.writeBytes(third.data(), third.size());
  }
  EXPECT_EQ(con->sendBufferSize, 131072u);
  EXPECT_EQ(con->queued(), std::string(10000, 'a') + packet(2, second) + packet(3, third));
}

using PacketReading = PacketTest;

TEST_F(PacketReading, FieldsBeyondTheEndFailOncePerPacket) {
  const std::string extent = logLine("ERROR", "Incoming packet data would extend beyond packet.");
  const std::string failed = logLine("INFO", "Error on the connection from 127.0.0.1:9000");
  const std::string bytes = le16(5) + "ab";
  const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
  Reader reader(con.get(), begin, begin + bytes.size());
  EXPECT_EQ(reader.readString<uint16_t>(), "");
  EXPECT_EQ(reader.read<uint8_t>(), 'a');  // the parser reads on what still fits
  EXPECT_EQ(reader.read<uint32_t>(), 0u);
  EXPECT_EQ(reader.readString<uint16_t>(), "");
  EXPECT_FALSE(reader.complete());
  EXPECT_TRUE(con->hasFailed());
  EXPECT_THAT(lines(), ElementsAre(extent, failed));

  struct Case {
    std::string bytes;
    bool pointerForm;
    bool expectNull;
    std::string text;
    bool logged;
  };
  const std::vector<Case> cases = {
      {std::string(1, 0) + "x", true, true, "", false},  // no address present
      {std::string(1, 0) + "x", false, false, "0.0.0.0:0", false},
      {std::string(1, 0), true, true, "", true},  // a tag can't end the packet
      {"\x06" + std::string(27, 0), false, false, "0.0.0.0:0", false},
      {"\x04" + std::string(15, 0), true, false, "0.0.0.0:0", false},
      {"\x09" + std::string(16, 0), false, false, "0.0.0.0:0", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes.size());
    fresh();
    const auto* start = reinterpret_cast<const uint8_t*>(c.bytes.data());
    Reader structure(con.get(), start, start + c.bytes.size());
    std::unique_ptr<ConnectionInfo> info =
        c.pointerForm ? structure.readStructurePointer()
                      : std::make_unique<ConnectionInfo>(structure.readStructure());
    EXPECT_EQ(info == nullptr, c.expectNull);
    if (info) {
      std::ostringstream text;
      text << *info;
      EXPECT_EQ(text.str(), c.text);
    }
    EXPECT_EQ(structure.complete(), c.expectNull && !c.logged);
    const std::vector<std::string> expected =
        c.logged ? std::vector<std::string>{extent, failed} : std::vector<std::string>();
    EXPECT_EQ(lines(), expected);
  }
}

using PacketFramingDeathTest = PacketTest;

TEST_F(PacketFramingDeathTest, ProgramErrorsStopTheProcess) {
  {
    Packet packet(con.get(), 1, 2 + 65535);
    packet.writeString<uint16_t>(std::string(65535, 's'));
  }
  EXPECT_DEATH(
      {
        Packet packet(con.get(), 1, 2 + 65536);
        packet.writeString<uint16_t>(std::string(65536, 's'));
      },
      "`s.size\\(\\) < \\(1ull << \\(8 \\* sizeof\\(L\\)\\)\\)' failed");
  EXPECT_DEATH(
      {
        Packet packet(con.get(), 1, 4);
        packet.write<uint16_t>(0);
      },
      "`con->sendWrite == expectedPacketEnd' failed");

  ConnectionInfo udp = loopbackInfo(1);
  udp.data.ai_protocol = IPPROTO_UDP;
  EXPECT_DEATH({ Packet(con.get(), 1, 17).writeStructure(udp); },
               "`info.data.ai_protocol == 0 \\|\\| info.data.ai_protocol == IPPROTO_TCP' failed");
  ConnectionInfo local = loopbackInfo(1);
  local.data.ai_family = AF_UNIX;
  EXPECT_DEATH({ Packet(con.get(), 1, 17).writeStructure(local); }, "`false' failed");
  ConnectionInfo shortV6 = loopbackInfo(1);
  shortV6.data.ai_family = AF_INET6;
  EXPECT_DEATH({ Packet(con.get(), 1, 33).writeStructure({&shortV6}); },
               "`v\\[i\\]->data.ai_addrlen == sizeof\\(sockaddr_in6\\)' failed");
}

// The incoming packet loop, over a plain connection on one end of a socketpair.
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

}  // namespace
