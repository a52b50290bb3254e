#include "protocol/network_packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/protocol/protocol_test_helpers.h"

namespace {

using Packet = NetworkConnection::OutgoingPacket;
using ::testing::PrintToString;

const std::string EXTENT = logLine("ERROR", "Incoming packet data would extend beyond packet.");

// The connection has no loop until a test registers it: packets stay in its send buffer.
using PacketFraming = ConnectionTest;

// Wider integers and 16-bit strings are pinned by the commands' bytes.
TEST_F(PacketFraming, AddressesAndEightBitFieldsReadAndWrittenBack) {
  // Inside a socket address the kernel's network order stays.
  const std::string v4 = hex("04 0200 2328 7f000001 0000000000000000");
  const std::string v6 = hex("06 0a00 01bb 00000000") + std::string(15, 0) + hex("01 00000000");
  const std::string payload = hex("ab 03 746f6b") + v4 + v6 + hex("02000000") + v6 + v4;
  auto reader = over(*con, payload);
  EXPECT_EQ(reader.read<uint8_t>(), 0xab);
  EXPECT_EQ(reader.readString<uint8_t>(), "tok");
  const ConnectionInfo readV4 = reader.readStructure();
  const std::unique_ptr<ConnectionInfo> readV6 = reader.readStructurePointer();
  ASSERT_NE(readV6, nullptr);
  EXPECT_EQ(PrintToString(readV4) + " " + PrintToString(*readV6),
            "127.0.0.1:9000 00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01:443");
  EXPECT_EQ(reader.read<uint32_t>(), 2u);
  EXPECT_EQ(*reader.readStructurePointer(), *readV6);
  EXPECT_EQ(reader.readStructure(), readV4);  // up to the packet's last byte
  EXPECT_EQ(reader.readRest(), "");
  EXPECT_TRUE(reader.complete());
  const std::vector<const ConnectionInfo*> both = {readV6.get(), &readV4};
  EXPECT_EQ(Packet::structureSize(readV4), 17u);
  EXPECT_EQ(Packet::structureSize(both), 4u + 29 + 17);
  const auto* token = reinterpret_cast<const uint8_t*>(payload.data()) + 2;
  {
    Packet packet(con.get(), 0x0102, static_cast<uint32_t>(payload.size()));
    packet.write<uint8_t>(0xab);
    packet.writeString<uint8_t>(token, token + 3);
    packet.writeStructure(readV4);
    packet.writeStructure(*readV6);
    packet.writeStructure(both);
  }
  EXPECT_EQ(con->queued(), packet(0x0102, payload));
  EXPECT_EQ(unreadBytes(peer), 0);  // no loop: nobody was told, nothing was sent
}

TEST_F(PacketFraming, SendBufferSlidesBeforeItGrows) {
  // {packet lengths, bytes the socket took before the last one, size, unread bytes at the start}
  const std::tuple<std::vector<uint32_t>, uint32_t, uint64_t, bool> rows[] = {
      {{65537}, 0, 131072, true},
      {{131072}, 0, 131072, true},            // grown once, to fit exactly
      {{40000, 30000}, 30000, 65536, true},   // slid
      {{40000, 25536}, 30000, 65536, false},  // fits exactly behind the data: stays
      {{40000, 60000}, 30000, 131072, true},  // sliding is not enough
  };
  for (const auto& [lengths, taken, size, atStart] : rows) {
    SCOPED_TRACE(testing::Message() << lengths.back() << " after " << lengths.front());
    restart();
    std::string expected;
    for (uint16_t i = 0; i < lengths.size(); ++i) {
      if (i + 1u == lengths.size()) con->sendRead += taken;
      const std::string payload(lengths[i] - 6, static_cast<char>('a' + i));
      queueOn(*con, i, payload);
      expected += packet(i, payload);
    }
    EXPECT_EQ(con->sendBufferSize, size);
    EXPECT_EQ(con->sendRead == con->sendBuffer.get(), atStart);
    EXPECT_EQ(con->queued(), expected.substr(taken));
  }
}

// Tag 0 is no address in the pointer form; any other failure yields 0.0.0.0:0.
TEST_F(PacketFraming, AddressesThatCannotBeRead) {
  const std::tuple<std::string, bool, bool, bool> rows[] = {
      // bytes, pointer form, null, logged
      {hex("00 78"), true, true, false},
      {hex("00 78"), false, false, false},
      {hex("00"), true, true, true},  // a tag can't end the packet
      {hex("06") + std::string(27, 0), false, false, false},
      {hex("04") + std::string(15, 0), true, false, false},
      {hex("09") + std::string(16, 0), false, false, false},
  };
  for (const auto& [bytes, pointerForm, null, logged] : rows) {
    SCOPED_TRACE(testing::Message() << "tag " << int{bytes[0]} << ", " << bytes.size() << " bytes");
    restart();
    auto structure = over(*con, bytes);
    std::unique_ptr<ConnectionInfo> info =
        pointerForm ? structure.readStructurePointer()
                    : std::make_unique<ConnectionInfo>(structure.readStructure());
    EXPECT_EQ(info ? PrintToString(*info) : "null", null ? "null" : "0.0.0.0:0");
    EXPECT_EQ(structure.complete(), null && !logged);
    EXPECT_EQ(lines().size(), logged ? 2u : 0u);
  }
}

using PacketFramingDeathTest = ConnectionTest;

TEST_F(PacketFramingDeathTest, ProgramErrorsStopTheProcess) {
  Packet(con.get(), 1, 2 + 65535).writeString<uint16_t>(std::string(65535, 's'));
  EXPECT_DEATH(Packet(con.get(), 1, 2 + 65536).writeString<uint16_t>(std::string(65536, 's')),
               "`s.size\\(\\) < \\(1ull << \\(8 \\* sizeof\\(L\\)\\)\\)' failed");
  EXPECT_DEATH(Packet(con.get(), 1, 4).write<uint16_t>(0),
               "`con->sendWrite == expectedPacketEnd' failed");
  ConnectionInfo udp = loopbackInfo(1), local = loopbackInfo(1), shortV6 = loopbackInfo(1);
  udp.data.ai_protocol = IPPROTO_UDP;
  local.data.ai_family = AF_UNIX;
  shortV6.data.ai_family = AF_INET6;
  EXPECT_DEATH(Packet(con.get(), 1, 17).writeStructure(udp),
               "`info.data.ai_protocol == 0 \\|\\| info.data.ai_protocol == IPPROTO_TCP' failed");
  EXPECT_DEATH(Packet(con.get(), 1, 17).writeStructure(local), "`false' failed");
  EXPECT_DEATH(Packet(con.get(), 1, 33).writeStructure({&shortV6}),
               "`v\\[i\\]->data.ai_addrlen == sizeof\\(sockaddr_in6\\)' failed");
}

// The incoming packet loop, on a registered connection whose peer writes raw bytes one at a time.
using PacketReceiving = ConnectionTest;

TEST_F(PacketReceiving, EachHeaderAndParseOutcomeWhateverTheReadsCut) {
  auto failing = [](const std::string& m) { return std::vector{logLine("ERROR", m), FAILED_LINE}; };
  // A field beyond the end: one report per packet, however many fields are short.
  auto unparsed = [](int id) {
    return std::vector{EXTENT, FAILED_LINE,
                       logLine("ERROR", "Failed to parse incoming command: " + std::to_string(id)),
                       FAILED_LINE, SKIPPED_LINE};
  };
  const std::string dropped = packet(3, "") + packet(1, "xy");  // for a connection without handler
  const std::string accepted = packet(256, "");  // for a handler that takes 256 alone
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      // Extra bytes behind a packet's fields are skipped with it.
      {packet(0, "hi") + packet(0, "") + packet(3, le32(7) + str16("no") + "extra"), {}},
      {le32(5), failing("Received packet too small (5), terminating connection")},
      {le32(268435457), failing("Received package too large (268435457), terminating connection")},
      {le32(268435456), {logLine("INFO", "Growing receive buffer to 268435460")}},
      {packet(49, ""), failing("Received unaccepted command: 49")},
      {packet(257, ""), failing("Received unaccepted command: 257")},  // no ids above 255
      {packet(65535, ""), failing("Received unaccepted command: 65535")},
      {accepted, failing("Failed to parse incoming command: 256")},
      {packet(3, le32(7) + le16(3) + "ab"), unparsed(3)},
      {packet(50, le32(1)), unparsed(50)},
      {packet(50, le32(0) + le32(3) + str16("a")), unparsed(50)},
      {packet(50, le32(0) + le32(0xFFFFFFFF)), unparsed(50)},  // costs the connection only
      {packet(51, le32(1) + "\x01"), unparsed(51)},
      {dropped,
       {logLine("ERROR", "Received 3 packet of length 6, but no handler set."),
        logLine("ERROR", "Received 1 packet of length 8, but no handler set.")}},
  };
  for (const auto& [bytes, expected] : rows) {
    SCOPED_TRACE(PrintToString(bytes));
    restart();
    // A handler that finishes the connection still gets the packets that follow.
    if (bytes != dropped) record(*con, &seen, {0, 3, 50, 51}, [&] { con->finish(); });
    if (bytes == accepted) record(*con, &seen, {256});
    con->registerAt(&loop);
    for (size_t i = 0; i < bytes.size() && !con->hasFailed(); ++i) {
      peerWrite(bytes.substr(i, 1));
      ASSERT_TRUE(runUntil(loop, [&] { return unreadBytes(con->socket) == 0; }));
    }
    EXPECT_EQ(lines(), expected);
    EXPECT_EQ(calls.order, con->hasFailed() ? "X" : "");
  }
  EXPECT_THAT(seen, testing::ElementsAre("error 'hi'", "error ''", "registered 7 'no'"));
}

}  // namespace
