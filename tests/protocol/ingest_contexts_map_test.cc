#include "protocol/ingest_contexts_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/protocol/protocol_test_helpers.h"

namespace {

std::string mapLine(const std::string& message) {
  return R"({"level":"ERROR", "component":"IngestContextsMap", "message": ")" + message + "\"}";
}

// Connections without a socket or a loop: what the map sends stays queued.
class IngestContexts : public ::testing::Test {
 protected:
  TestConnection* connect() {
    connections.push_back(
        std::make_unique<TestConnection>(Log(connectionOut), ConnectionInfo(), -1, false));
    map.addConnection(connections.back().get());
    return connections.back().get();
  }
  void ack(TestConnection* con, uint32_t context,
           std::vector<std::string> names = {ENABLE_ACK, TRUNCATE_TIMESTAMP, TIMESTAMP_DIVIDER}) {
    map.onConfigAck(con, CmdIngestConfigAck{context, std::move(names)});
  }

  std::ostringstream out, connectionOut;  // the map's lines, the connections'
  IngestContextsMap map{Log(out).with("component", "IngestContextsMap")};
  std::vector<std::unique_ptr<TestConnection>> connections;
};

TEST_F(IngestContexts, TokensAreRegisteredOnEveryConnectionAndAnswered) {
  EXPECT_EQ(map.registerContext({true, false, 1000000, "first"}), 0u);  // nothing to send it on
  TestConnection* one = connect();
  TestConnection* two = connect();
  ack(one, 0);
  EXPECT_EQ(map.registerContext({false, false, 5, "first"}), 0u);  // only the token counts
  EXPECT_EQ(map.registerContext({true, true, 1000000, "next"}), 1u);
  // A connection on a known address keeps its entry, bits included, and asks all the same.
  map.addConnection(one);
  const std::string both = packet(2, "\5first" + le32(0)) + packet(2, "\4next" + le32(1));
  EXPECT_EQ(takeQueued(*one), both + both);
  EXPECT_EQ(takeQueued(*two), both);
  // Ready per connection and context; an id beyond the bits is just not ready.
  EXPECT_TRUE(map.isContextReady(0, one));
  EXPECT_FALSE(map.isContextReady(1, one) || map.isContextReady(0, two) ||
               map.isContextReady(2, one));

  // The answer to a registration: the configuration (a packet of 93 bytes) with the options in name
  // order and the first source's settings; or, for a refusal, only a line through the map's log.
  map.onContextRegistered(two, CmdIngestContextRegistered{0, ""});
  const std::string config = le32(0) + le32(3) + str16("enable_ack") + le64(1) +
                             str16("timestamp_divider") + le64(1000000) +
                             str16("truncate_timestamp") + le64(0) + le32(0);
  EXPECT_EQ(takeQueued(*two), packet(49, config));
  map.onContextRegistered(two, CmdIngestContextRegistered{7, "no such token"});
  EXPECT_EQ(out.str(),
            mapLine("Ingester context / write token registration failed: no such token") + "\n");
  EXPECT_EQ(takeQueued(*two), "");
}

TEST_F(IngestContexts, OnlyExactlyTheThreeNamesMakeAContextReady) {
  const std::string missing = "Ingester did not acknowledge option ";
  const std::string unasked = "Ingester replied with not requested config option ";
  // Missing names are logged first, then unasked ones, each in name order.
  const std::pair<std::vector<std::string>, std::vector<std::string>> rows[] = {
      {{TRUNCATE_TIMESTAMP, ENABLE_ACK, TIMESTAMP_DIVIDER, ENABLE_ACK}, {}},
      {{"bogus"},
       {missing + ENABLE_ACK, missing + TIMESTAMP_DIVIDER, missing + TRUNCATE_TIMESTAMP,
        unasked + "bogus"}},
      {{ENABLE_ACK, "zzz", TRUNCATE_TIMESTAMP, TIMESTAMP_DIVIDER, "aaa"},
       {unasked + "aaa", unasked + "zzz"}},
      {{TIMESTAMP_DIVIDER}, {missing + ENABLE_ACK, missing + TRUNCATE_TIMESTAMP}},
  };
  map.registerContext({true, true, 1000000, "a"});
  for (const auto& [names, logged] : rows) {
    SCOPED_TRACE(names[0]);
    TestConnection* con = connect();
    out.str("");
    ack(con, 0, names);
    std::string expected;
    for (const std::string& m : logged)
      expected += mapLine("Ingester context configuration failed. " + m + ".") + "\n";
    EXPECT_EQ(out.str(), expected);
    EXPECT_EQ(map.isContextReady(0, con), logged.empty());
  }
}

using IngestContextsDeathTest = IngestContexts;

// Ids the agent never gave out throw, and nothing in the agent catches them.
TEST_F(IngestContextsDeathTest, BrokenIdsEndTheProcess) {
  for (const char* token : {"a", "b", "c"}) map.registerContext({true, true, 1, token});
  TestConnection* con = connect();
  EXPECT_THROW(map.onContextRegistered(con, {7, ""}), std::out_of_range);
  EXPECT_THROW(ack(con, 7), std::out_of_range);
  TestConnection stranger(Log(connectionOut), ConnectionInfo(), -1, false);
  EXPECT_THAT([&] { ack(&stranger, 0); },
              testing::ThrowsMessage<std::out_of_range>(testing::HasSubstr("map::at")));
  // A question about a connection never added leaves an entry without bits, which the next
  // registration trips over.
  EXPECT_FALSE(map.isContextReady(0, &stranger));
  EXPECT_DEATH(map.registerContext({true, true, 1, "d"}),
               "`state.size\\(\\) == context \\+ 1' failed");
}

}  // namespace
