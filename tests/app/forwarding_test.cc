// The agent's connections and its one queue, in process: kept batches and their
// acknowledgements, the event sink's limit, and the connection check.
#include "app/forwarding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "tests/support/address_helpers.h"
#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::HasSubstr;

// One event per character, all of context 3 at time 100.
std::vector<LogEvent> batch(const std::string& text) {
  std::vector<LogEvent> events;
  for (const char c : text) events.push_back(LogEvent{3, 100, std::string(1, c)});
  return events;
}

// A listener that never accepts: the kernel completes the handshake into the backlog, so a
// connection to it stays up, and what it sends waits in its buffer. Port 1 refuses.
class Forwarding : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NetworkConnection::Initialize(Log(std::cout), false, true);
    listenOnLoopback(&port);  // open until the process ends
  }

  IngesterConnection& add(uint16_t to) {
    connections.push_back(std::make_unique<IngesterConnection>(log, loopbackInfo(to)));
    return *connections.back();
  }
  // The kept batches' bytes, each batch behind a "|".
  static std::string kept(const IngesterConnection& con) {
    std::string text;
    for (const std::vector<LogEvent>& batch : con.unacknowledged) {
      text += "|";
      for (const LogEvent& e : batch) text += e.data;
    }
    return text;
  }

  std::ostringstream out;
  Log log{out};
  static inline uint16_t port = 0;
  EventLoop loop{log};
  IngestContextsMap contexts{log};
  EventQueue events;
  IngesterConnections connections;
};

TEST_F(Forwarding, ConnectionKeepsCopiesOfItsBatchesUntilAcknowledgedCountingFromZero) {
  IngesterConnection& con = add(port);
  std::string a = "a", b = "b";
  const EphemeralLogEvent ab[] = {eventOf(a), eventOf(b)};
  con.sendEvents(1, 42, ab, 2);
  a = b = "z";  // the source's buffer moves on; the copies must not
  con.sendEvent(LogEvent{2, 7, "line\n"});
  // Each packet: a 22-byte head, then two length bytes per event.
  EXPECT_EQ(con.usedSendBuffer(), (22u + 3 + 3) + (22u + 2 + 5));
  EXPECT_EQ(kept(con), "|ab|line\n");
  EXPECT_THAT(con.unacknowledged[0][1], ::testing::FieldsAre(1u, 42u, "b"));
  for (const char* text : {"c", "de", "f", "g"}) con.unacknowledged.push_back(batch(text));
  // Batches count from 0; repeated and older numbers do nothing.
  for (const uint64_t sequence : {0, 0, 4, 3}) con.acknowledgeBatches(sequence);
  EXPECT_EQ(kept(con), "|g");
  EXPECT_EQ(con.acknowledged, 5u);
  // One past what was sent empties without popping more; a huge one ends at once.
  con.acknowledgeBatches(100);
  EXPECT_EQ(con.acknowledged, 101u);
  con.unacknowledged.push_back(batch("h"));
  con.acknowledgeBatches(UINT64_MAX - 1);
  EXPECT_EQ(kept(con), "");
  EXPECT_EQ(con.acknowledged, UINT64_MAX);
}

TEST_F(Forwarding, QueueTakesWholeBatchesUntilMoreThan1023Wait) {
  // With no connection, and with one that can't take events yet: the drain before a refusal
  // moves nothing, so the refusals are those of a plain limit.
  const uint8_t byte = 'x';
  const std::vector<EphemeralLogEvent> bytes(1023, EphemeralLogEvent{&byte, &byte + 1});
  for (const bool withConnection : {false, true}) {
    SCOPED_TRACE(withConnection);
    events.clear();
    if (withConnection) add(port);
    const uint64_t refusedBefore = bufferFull;
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 1, bytes.data(), 1023));
    // At 1023 waiting a batch is still taken, whole: the limit is where refusing starts.
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 2, bytes.data(), 256));
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, bytes.data(), 256));
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, bytes.data(), 1));
    EXPECT_EQ(events.size(), 1023u + 256u);
    EXPECT_EQ(bufferFull - refusedBefore, 2u);
    EXPECT_EQ(events.back().timestamp, 2u);
  }
}

// The queue filled while a real endpoint paused; now its connection can take events again, so
// the event sink drains the queue before it would refuse, and takes the batch.
TEST_F(Forwarding, AFullQueueIsDrainedBeforeABatchIsRefused) {
  TempDir dir;
  std::unique_ptr<ChildProcess> sink;
  const uint16_t sinkPort = startSink(dir, {"--format", "raw", "--out", "received"}, sink);
  LogEventSourceConfiguration config;
  config.writeToken = "token";
  const uint32_t context = contexts.registerContext(config);
  IngesterConnection& con = add(sinkPort);
  setupForwardConnection(connections.back(), events, loop, contexts, log);
  ASSERT_TRUE(runUntil(loop, [&] { return contexts.isContextReady(context, &con); })) << out.str();
  for (int i = 0; i < 1100; ++i) events.push_back(LogEvent{context, 5, std::to_string(i) + "\n"});
  const uint64_t refusedBefore = bufferFull;
  const std::string text = "new\n";
  const EphemeralLogEvent added = eventOf(text);
  EXPECT_TRUE(offerBatch(events, connections, contexts, context, 6, &added, 1));
  EXPECT_EQ(bufferFull, refusedBefore);
  // Everything arrives once and in order: what waited first, then the new batch.
  std::string expected;
  for (int i = 0; i < 1100; ++i) expected += std::to_string(i) + "\n";
  expected += text;
  EXPECT_TRUE(
      runUntil(loop, [&] { return readFile(dir.file("received")).size() >= expected.size(); }));
  EXPECT_TRUE(readFile(dir.file("received")) == expected) << readFile(dir.file("received")).size();
}

TEST_F(Forwarding, TheCheckReplacesWhatIsDownAddsWhatIsNewAndDropsWhatVanished) {
  add(1).unacknowledged = {batch("0"), batch("1"), batch("abc"), batch("d"), batch("e")};
  add(port);
  for (const auto& con : connections) setupForwardConnection(con, events, loop, contexts, log);
  connections[0]->acknowledgeBatches(1);
  events = {LogEvent{3, 100, "w"}};
  ASSERT_TRUE(runUntil(loop, [&] { return connections[0]->isDown(); }));
  const IngesterConnection* const up = connections[1].get();
  const uint64_t connectsBefore = networkConnects;
  std::shared_mutex mutex;
  ResolvedAddresses resolved = {loopbackInfo(1), loopbackInfo(port), loopbackInfo(2)};

  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  // What was not acknowledged goes first, batch by batch, each batch's events reversed.
  std::string queued;
  for (const LogEvent& e : events) queued += e.data;
  EXPECT_EQ(queued, "cbadew");
  ASSERT_EQ(connections.size(), 3u);
  EXPECT_EQ(connections[1].get(), up);
  EXPECT_EQ(connections[2]->connectionInfo, loopbackInfo(2));
  EXPECT_EQ(networkConnects - connectsBefore, 2u);
  EXPECT_THAT(out.str(), HasSubstr("\"message\": \"Reconnecting to 127.0.0.1:1\"}"));
  EXPECT_EQ(out.str().find("Reconnecting to 127.0.0.1:2"), std::string::npos);  // new, not lost

  // After a failed lookup nothing goes; after a clean one, what vanished does.
  resolved = {ConnectionError{"gone", "9", "lookup failed"}, loopbackInfo(port)};
  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  EXPECT_EQ(connections.size(), 3u);
  EXPECT_THAT(out.str(), HasSubstr("\"message\": \"Could not resolve gone:9: lookup failed\"}"));
  resolved.erase(resolved.begin());
  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  ASSERT_EQ(connections.size(), 1u);
  EXPECT_EQ(connections[0].get(), up);
}

}  // namespace
