#include "app/ingester_connection.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

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
    EXPECT_GE(listener, 0);
    NetworkConnection::Initialize(log, false, true);
    con = std::make_unique<IngesterConnection>(log, loopbackInfo(port));
  }
  ~IngesterConnectionTest() override {
    con.reset();
    close(listener);
  }

  // Sends one batch per text, each event being one character of it.
  void sendBatches(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      std::vector<EphemeralLogEvent> events;
      const auto* p = reinterpret_cast<const uint8_t*>(text.data());
      for (size_t i = 0; i < text.size(); ++i) events.push_back({p + i, p + i + 1});
      con->sendEvents(3, 100, events.data(), static_cast<uint32_t>(events.size()));
    }
  }

  // The first event of every kept batch.
  std::vector<std::string> kept() const {
    std::vector<std::string> fronts;
    for (const std::vector<LogEvent>& batch : con->unacknowledged) fronts.push_back(batch.front().data);
    return fronts;
  }

  std::ostringstream out;
  Log log{out};
  int listener = -1;
  std::unique_ptr<IngesterConnection> con;
};

TEST_F(IngesterConnectionTest, BatchIsSentAsOnePacketAndKeptAsCopies) {
  std::string line = "ab";
  const auto* p = reinterpret_cast<const uint8_t*>(line.data());
  const EphemeralLogEvent events[] = {{p, p + 2}, {p + 1, p + 2}};
  con->sendEvents(1, 42, events, 2);
  line = "zz";  // the source's buffer moves on; the copies must not
  EXPECT_EQ(con->usedSendBuffer(), 22u + (2 + 2) + (2 + 1));
  ASSERT_EQ(con->unacknowledged.size(), 1u);
  const std::vector<LogEvent>& batch = con->unacknowledged.front();
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(batch[0].data, "ab");
  EXPECT_EQ(batch[1].data, "b");
  EXPECT_EQ(batch[1].context, 1u);
  EXPECT_EQ(batch[1].timestamp, 42u);
}

TEST_F(IngesterConnectionTest, QueuedEventGoesOutAloneAndIsKeptAgain) {
  con->sendEvent(LogEvent{2, 7, "line\n"});
  EXPECT_EQ(con->usedSendBuffer(), 22u + 2 + 5);
  ASSERT_EQ(con->unacknowledged.size(), 1u);
  ASSERT_EQ(con->unacknowledged.front().size(), 1u);
  const LogEvent& kept = con->unacknowledged.front().front();
  EXPECT_EQ(kept.context, 2u);
  EXPECT_EQ(kept.timestamp, 7u);
  EXPECT_EQ(kept.data, "line\n");
}

TEST_F(IngesterConnectionTest, AcknowledgementsCountBatchesFromZero) {
  sendBatches({"a", "bc", "d", "ef", "g", "h"});
  con->acknowledgeBatches(0);
  EXPECT_THAT(kept(), ElementsAre("b", "d", "e", "g", "h"));
  EXPECT_EQ(con->acknowledged, 1u);
  con->acknowledgeBatches(0);  // repeated: nothing
  EXPECT_EQ(con->unacknowledged.size(), 5u);
  con->acknowledgeBatches(1);
  EXPECT_EQ(con->acknowledged, 2u);
  con->acknowledgeBatches(4);  // batches 2, 3 and 4
  EXPECT_THAT(kept(), ElementsAre("h"));
  EXPECT_EQ(con->acknowledged, 5u);
  con->acknowledgeBatches(3);  // old: nothing
  EXPECT_THAT(kept(), ElementsAre("h"));
  EXPECT_EQ(out.str().find("ERROR"), std::string::npos) << out.str();
}

TEST_F(IngesterConnectionTest, AcknowledgingMoreThanWasSentEmptiesWithoutRunningPastTheEnd) {
  sendBatches({"a", "b"});
  con->acknowledgeBatches(100);
  EXPECT_TRUE(con->unacknowledged.empty());
  EXPECT_EQ(con->acknowledged, 101u);
  sendBatches({"c"});
  con->acknowledgeBatches(UINT64_MAX - 1);  // must end at once, not count up to it
  EXPECT_TRUE(con->unacknowledged.empty());
  EXPECT_EQ(con->acknowledged, UINT64_MAX);
}

}  // namespace
