#include "protocol/network_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/protocol/protocol_test_helpers.h"

namespace {

using ::testing::ElementsAre;

// Writes every command it gets back on the connection, so that what the parser built can be held
// against the bytes it came from.
struct Echo {
  NetworkConnection* con;
  CommandSet acceptedCommands() const { return {}; }  // parseCommand() asks no set
  template <typename Cmd>
  void operator()(const Cmd& cmd) {
    if constexpr (requires { con->send(cmd); }) con->send(cmd);
  }
};

// A connection without a loop: what is sent stays queued.
using Commands = ConnectionTest;

// Writer and parser of each command against the same bytes, so both keep the wire's field order.
TEST_F(Commands, EachCommandByteForByteBothWays) {
  con->setHandler(std::make_unique<NetworkCmdHandler<Echo>>(Echo{con.get()}));
  const std::string ab = "ab", c = "c", longest(65528, 'x'), none, complaint = "go away";
  const EphemeralLogEvent batch[] = {eventOf(ab), eventOf(c)};
  const EphemeralLogEvent edges[] = {eventOf(longest), eventOf(none)};
  const std::tuple<NetworkCommand, std::string, bool> rows[] = {
      // command, payload, parsed
      {CmdError{complaint}, "go away", true},
      {CmdCompleted{}, "", true},
      {CmdRegisterIngestContext{"abc", 0}, hex("03 616263 00000000"), false},
      {CmdIngestContextRegistered{7, "no"}, hex("07000000 0200 6e6f"), true},
      {CmdIngestLogEvents{1, 0x0807060504030201, batch, 2},
       hex("01000000 0102030405060708 02000000 0200 6162 0100 63"), false},
      {CmdIngestLogEvents{0, 0, nullptr, 0}, std::string(16, 0), false},
      {CmdIngestLogEvents{0, 0, edges, 2},
       std::string(12, 0) + hex("02000000 f8ff") + longest + hex("0000"), false},
      {CmdIngestConfig{5, {{"b", 2}, {"a", 1}}, {{"s", "v"}}},
       hex("05000000 02000000 0100 61 0100000000000000 0100 62 0200000000000000"
           " 01000000 0100 73 0100 76"),
       false},
      {CmdIngestConfigAck{2, {"ab", ""}}, hex("02000000 02000000 0200 6162 0000"), true},
      {CmdIngestLogAck{0xA1B2C3D4, 0x1122334455667788, 9}, hex("d4c3b2a1 8877665544332211 0900"),
       true},
  };
  for (const auto& [command, payload, parsed] : rows) {
    const uint16_t id = std::visit([](const auto& cmd) { return cmd.ID; }, command);
    SCOPED_TRACE(testing::Message() << "id " << id << ", " << payload.size() << " bytes");
    std::visit(Echo{con.get()}, command);
    const std::string written = id == CmdCompleted::ID ? "" : packet(id, payload);
    EXPECT_EQ(takeQueued(*con), written);
    auto reader = over(*con, payload);
    EXPECT_EQ(con->parseCommand(id, reader), parsed);
    EXPECT_EQ(takeQueued(*con), parsed ? written : "");  // the parsed command, written again
  }
  EXPECT_TRUE(lines().empty());
}

// The connection reads this layout directly.
TEST(CommandSetBits, WordsForLowIdsVectorForHighOnes) {
  CommandSet set;
  for (int id : {0, 3, 50, 51, 256, 256 + 64 + 5}) set.insert(static_cast<uint16_t>(id));
  EXPECT_THAT(set.words, ElementsAre(0x000C000000000009ull, 0, 0, 0));
  EXPECT_THAT(set.extended, ElementsAre(1u, 1ull << 5));
}

using CommandsDeathTest = ConnectionTest;

TEST_F(CommandsDeathTest, ProgramErrorsStop) {
  const std::string tooLong(65529, 'x');
  const EphemeralLogEvent event = eventOf(tooLong);
  EXPECT_DEATH(con->send(CmdIngestLogEvents{0, 0, &event, 1}),
               "`sizeof\\(uint64_t\\) \\+ len <= MAXIMUM_EVENT_LENGTH' failed");
  EXPECT_DEATH(con->send(CmdRegisterIngestContext{std::string(256, 't'), 0}),
               "`cmd.writeToken.size\\(\\) < 256' failed");
  // A handler's set let through a command that it has no overload for.
  struct Careless {
    CommandSet acceptedCommands() const { return {}; }
    void operator()(const CmdIngestLogAck&) {}
  };
  NetworkCmdHandler<Careless> handler;
  handler(NetworkCommand(CmdIngestLogAck{0, 0, 0}));
  EXPECT_DEATH(handler(NetworkCommand(CmdCompleted{})), "`false' failed");
}

}  // namespace
