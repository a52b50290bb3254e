// The driver's queue work: what comes back from a lost connection, and which connections a
// change of addresses keeps.
#include "app/forwarding.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "tests/support/address_helpers.h"
#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAreArray;

LogEvent event(const std::string& data) { return LogEvent{0, 7, data}; }

std::vector<std::string> texts(const EventQueue& events) {
  std::vector<std::string> out;
  for (const LogEvent& e : events) out.push_back(e.data);
  return out;
}

class Forwarding : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NetworkConnection::Initialize(Log(std::cout), false, true); }

  // Port 1 on loopback refuses; these objects are never registered, so nothing is sent.
  std::unique_ptr<IngesterConnection> connection(uint16_t port = 1) {
    return std::make_unique<IngesterConnection>(log, loopbackInfo(port));
  }

  std::ostringstream out;
  Log log{out};
};

TEST_F(Forwarding, UnacknowledgedBatchesReturnInOrderBeforeWhatWaited) {
  auto con = connection();
  con->unacknowledged.push_back({event("a"), event("b"), event("c")});
  con->unacknowledged.push_back({event("d")});
  con->unacknowledged.push_back({event("e")});
  EventQueue events{event("older1"), event("older2")};

  requeueUnacknowledged(*con, events);

  // The batch a, b, c comes back reversed; one-event batches keep their order.
  EXPECT_THAT(texts(events), ElementsAre("c", "b", "a", "d", "e", "older1", "older2"));
  EXPECT_TRUE(con->unacknowledged.empty());
}

TEST_F(Forwarding, AcknowledgedBatchesDoNotReturn) {
  auto con = connection();
  for (const char* text : {"0", "1", "2", "3"}) con->unacknowledged.push_back({event(text)});
  con->acknowledgeBatches(1);
  EventQueue events;
  requeueUnacknowledged(*con, events);
  EXPECT_THAT(texts(events), ElementsAre("2", "3"));
}

TEST_F(Forwarding, AgentAcceptsExactlyTheFourIngesterAnswers) {
  // Ids 0, 3, 50 and 51 and nothing else: any other command fails the connection unparsed.
  EventQueue events;
  IngestContextsMap contexts(log);
  auto con = connection();
  const CommandSet accepted =
      AgentHandler(con.get(), events, contexts, Log(log)).acceptedCommands();
  EXPECT_EQ(accepted.words[0], 0x000C000000000009ull);
  EXPECT_EQ(accepted.words[1] | accepted.words[2] | accepted.words[3], 0u);
  EXPECT_TRUE(accepted.extended.empty());
}

TEST_F(Forwarding, DropVanishedKeepsEveryConnectionWhoseAddressIsResolved) {
  // Every pattern of kept and dropped over five connections, including none and all.
  for (unsigned keepMask = 0; keepMask < 32; ++keepMask) {
    SCOPED_TRACE(keepMask);
    IngesterConnections connections;
    ResolvedAddresses resolved;
    std::vector<IngesterConnection*> kept;
    for (uint16_t i = 0; i < 5; ++i) {
      connections.push_back(connection(static_cast<uint16_t>(40000 + i)));
      if (keepMask & (1u << i)) {
        resolved.emplace_back(loopbackInfo(static_cast<uint16_t>(40000 + i)));
        kept.push_back(connections.back().get());
      }
    }
    resolved.emplace_back(ConnectionError{"gone", "1", "not used by this stage"});

    dropVanished(connections, resolved);

    std::vector<IngesterConnection*> left;
    for (const auto& con : connections) left.push_back(con.get());
    EXPECT_THAT(left, UnorderedElementsAreArray(kept));
  }
}

// Batches of `size` one-byte events.
std::vector<EphemeralLogEvent> batchOf(uint32_t size) {
  static const uint8_t byte = 'x';
  return std::vector<EphemeralLogEvent>(size, EphemeralLogEvent{&byte, &byte + 1});
}

TEST_F(Forwarding, QueueTakesWholeBatchesUntilMoreThan1023Wait) {
  // No connection at all, and one that cannot take events yet (connecting): the drain before a
  // refusal moves nothing, so the refusals are exactly those of a plain limit.
  for (const bool withConnection : {false, true}) {
    SCOPED_TRACE(withConnection);
    IngestContextsMap contexts(log);
    IngesterConnections connections;
    if (withConnection) connections.push_back(connection());
    EventQueue events;
    const uint64_t refusedBefore = bufferFull;

    const std::vector<EphemeralLogEvent> big = batchOf(1023);
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 1, big.data(), 1023));
    // At 1023 waiting a batch is still taken, whole: the limit is where refusing starts.
    const std::vector<EphemeralLogEvent> batch = batchOf(256);
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 2, batch.data(), 256));
    EXPECT_EQ(events.size(), 1023u + 256u);
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, batch.data(), 256));
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, batch.data(), 1));
    EXPECT_EQ(events.size(), 1023u + 256u);
    EXPECT_EQ(bufferFull - refusedBefore, 2u);
    EXPECT_EQ(events.back().timestamp, 2u);
  }
}

// One connection to a real endpoint, driven by a loop of the test's own.
class ForwardingToEndpoint : public Forwarding {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(startSinkProcess(DROVER_SINK_BINARY, dir, {}, sink, port));
    LogEventSourceConfiguration config;
    config.writeToken = "token";
    context = contexts.registerContext(config);
    connections.push_back(std::make_unique<IngesterConnection>(
        log, loopbackInfo(static_cast<uint16_t>(std::stoi(port)))));
    setupForwardConnection(connections.front(), events, loop, contexts, log);
    ASSERT_TRUE(runUntil(loop, [&] { return contexts.isContextReady(context, first()); }))
        << out.str();
  }
  void TearDown() override { connections.clear(); }

  IngesterConnection* first() { return connections.front().get(); }

  // Waits until `count` lines have arrived and returns them.
  std::vector<std::string> receivedLines(size_t count) {
    std::vector<std::string> lines;
    runUntil(loop, [&] {
      lines = splitLines(readFile(dir.file("received")));
      return lines.size() >= count;
    });
    return lines;
  }

  TempDir dir;
  std::string port;
  std::unique_ptr<ChildProcess> sink;
  EventLoop loop{log};
  IngestContextsMap contexts{log};
  IngesterConnections connections;
  EventQueue events;
  uint32_t context = 0;
};

TEST_F(ForwardingToEndpoint, AFullQueueIsDrainedBeforeABatchIsRefused) {
  // The queue filled while the endpoint paused; now the connection can take events again.
  for (int i = 0; i < 1100; ++i)
    events.push_back(LogEvent{context, 5, "queued " + std::to_string(i) + "\n"});
  ASSERT_TRUE(first()->shouldSend());
  const uint64_t refusedBefore = bufferFull;

  std::vector<std::string> texts;
  for (int i = 0; i < 3; ++i) texts.push_back("new " + std::to_string(i) + "\n");
  std::vector<EphemeralLogEvent> batch;
  for (const std::string& text : texts) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    batch.push_back({bytes, bytes + text.size()});
  }
  EXPECT_TRUE(offerBatch(events, connections, contexts, context, 6, batch.data(), 3));
  EXPECT_EQ(bufferFull, refusedBefore);
  EXPECT_LE(events.size(), 1023u + 3u);

  // Everything arrives once and in order: what waited first, then the new batch.
  const std::vector<std::string> lines = receivedLines(1103);
  ASSERT_EQ(lines.size(), 1103u) << out.str();
  for (int i = 0; i < 1100; ++i)
    ASSERT_EQ(lines[static_cast<size_t>(i)], "queued " + std::to_string(i));
  EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
              ElementsAre("new 0", "new 1", "new 2"));
}

TEST_F(ForwardingToEndpoint, AFullQueueWhoseFrontCannotGoIsStillRefused) {
  // The front event's context was never negotiated: the drain moves nothing, so the sources are
  // held back as before.
  for (int i = 0; i < 1024; ++i) events.push_back(LogEvent{context + 1, 5, "stuck\n"});
  const uint64_t refusedBefore = bufferFull;
  const std::vector<EphemeralLogEvent> batch = batchOf(1);
  EXPECT_FALSE(offerBatch(events, connections, contexts, context, 6, batch.data(), 1));
  EXPECT_EQ(bufferFull - refusedBefore, 1u);
  EXPECT_EQ(events.size(), 1024u);
}

TEST_F(Forwarding, DrainStopsAtAFrontEventWhoseContextIsNotReady) {
  IngestContextsMap contexts(log);
  IngesterConnections connections;
  connections.push_back(connection());
  EventQueue events{event("a"), event("b")};
  // Connecting connections refuse data, and context 0 isn't ready anywhere: nothing moves.
  drainEvents(events, connections, contexts);
  EXPECT_THAT(texts(events), ElementsAre("a", "b"));
  EXPECT_TRUE(connections[0]->unacknowledged.empty());
}

}  // namespace
