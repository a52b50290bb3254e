#include "app/ingester_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/address_helpers.h"

namespace {

using ::testing::ElementsAre;

// A loopback listener that is never accepted from: the kernel completes the handshake into the
// backlog, so a connection to it stays connecting while no loop drives it, and sends stay queued.
class IngesterConnectionTest : public ::testing::Test {
 protected:
  IngesterConnectionTest() {
    uint16_t port = 0;
    listener = listenOnLoopback(&port);
    NetworkConnection::Initialize(log, false, true);
    con = std::make_unique<IngesterConnection>(log, loopbackInfo(port));
  }
  ~IngesterConnectionTest() override {
    con.reset();
    close(listener);
  }

  // The first event of every kept batch.
  std::vector<std::string> kept() const {
    std::vector<std::string> fronts;
    for (const std::vector<LogEvent>& batch : con->unacknowledged) fronts.push_back(batch[0].data);
    return fronts;
  }

  std::ostringstream out;
  Log log{out};
  int listener = -1;
  std::unique_ptr<IngesterConnection> con;
};

TEST_F(IngesterConnectionTest, BatchesGoAsOnePacketEachAndAreKeptAsCopies) {
  std::string line = "ab";
  const auto* p = reinterpret_cast<const uint8_t*>(line.data());
  const EphemeralLogEvent events[] = {{p, p + 2}, {p + 1, p + 2}};
  con->sendEvents(1, 42, events, 2);
  line = "zz";  // the source's buffer moves on; the copies must not
  con->sendEvent(LogEvent{2, 7, "line\n"});
  // Each packet: a 22-byte head, then two length bytes per event.
  EXPECT_EQ(con->usedSendBuffer(), (22u + 2 + 2 + 2 + 1) + (22u + 2 + 5));
  ASSERT_EQ(con->unacknowledged.size(), 2u);
  const std::vector<LogEvent>& batch = con->unacknowledged[0];
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(batch[0].data, "ab");
  EXPECT_EQ(batch[1].data, "b");
  EXPECT_EQ(batch[1].context, 1u);
  EXPECT_EQ(batch[1].timestamp, 42u);
  ASSERT_EQ(con->unacknowledged[1].size(), 1u);
  const LogEvent& single = con->unacknowledged[1][0];
  EXPECT_EQ(single.context, 2u);
  EXPECT_EQ(single.timestamp, 7u);
  EXPECT_EQ(single.data, "line\n");
}

TEST_F(IngesterConnectionTest, AcknowledgementsCountBatchesFromZero) {
  // One batch per text, one event per character.
  const auto send = [&](const std::string& text) {
    std::vector<EphemeralLogEvent> events;
    const auto* p = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t i = 0; i < text.size(); ++i) events.push_back({p + i, p + i + 1});
    con->sendEvents(3, 100, events.data(), static_cast<uint32_t>(events.size()));
  };
  for (const char* text : {"a", "bc", "d", "ef", "g", "h"}) send(text);
  struct Step {
    uint64_t sequence;
    std::vector<std::string> left;
    uint64_t acknowledged;
  };
  // Repeated and older numbers do nothing; one past what was sent empties without popping more.
  const std::vector<Step> steps = {{0, {"b", "d", "e", "g", "h"}, 1},
                                   {0, {"b", "d", "e", "g", "h"}, 1},
                                   {1, {"d", "e", "g", "h"}, 2},
                                   {4, {"h"}, 5},
                                   {3, {"h"}, 5},
                                   {100, {}, 101}};
  for (const Step& step : steps) {
    SCOPED_TRACE(step.sequence);
    con->acknowledgeBatches(step.sequence);
    EXPECT_EQ(kept(), step.left);
    EXPECT_EQ(con->acknowledged, step.acknowledged);
  }
  send("c");
  con->acknowledgeBatches(UINT64_MAX - 1);  // must end at once, not count up to it
  EXPECT_TRUE(con->unacknowledged.empty());
  EXPECT_EQ(con->acknowledged, UINT64_MAX);
  EXPECT_EQ(out.str().find("ERROR"), std::string::npos) << out.str();
}

}  // namespace
