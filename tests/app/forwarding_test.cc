// The driver's queue work: the event sink's limit, what comes back from a lost connection, and
// what the connection check keeps, replaces and adds.
#include "app/forwarding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <sstream>

#include "tests/support/address_helpers.h"
#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAreArray;

LogEvent event(const std::string& data) {
  return LogEvent{0, 7, data};
}

std::vector<std::string> texts(const EventQueue& events) {
  std::vector<std::string> out;
  for (const LogEvent& e : events) out.push_back(e.data);
  return out;
}

// Batches of `size` one-byte events.
std::vector<EphemeralLogEvent> batchOf(uint32_t size) {
  static const uint8_t byte = 'x';
  return std::vector<EphemeralLogEvent>(size, EphemeralLogEvent{&byte, &byte + 1});
}

class Forwarding : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NetworkConnection::Initialize(Log(std::cout), false, true); }

  // Port 1 on loopback refuses; unregistered objects send nothing.
  std::unique_ptr<IngesterConnection> connection(uint16_t port = 1) {
    return std::make_unique<IngesterConnection>(log, loopbackInfo(port));
  }

  std::ostringstream out;
  Log log{out};
  EventLoop loop{log};
  IngestContextsMap contexts{log};
  EventQueue events;
  IngesterConnections connections;
};

TEST_F(Forwarding, UnacknowledgedBatchesReturnInOrderBeforeWhatWaited) {
  auto con = connection();
  for (const char* text : {"0", "1"}) con->unacknowledged.push_back({event(text)});
  con->unacknowledged.push_back({event("a"), event("b"), event("c")});
  con->unacknowledged.push_back({event("d")});
  con->unacknowledged.push_back({event("e")});
  con->acknowledgeBatches(1);
  events = {event("older1"), event("older2")};
  requeueUnacknowledged(*con, events);
  // The batch a, b, c comes back reversed; one-event batches keep their order.
  EXPECT_THAT(texts(events), ElementsAre("c", "b", "a", "d", "e", "older1", "older2"));
  EXPECT_TRUE(con->unacknowledged.empty());
}

TEST_F(Forwarding, AgentAcceptsExactlyTheFourIngesterAnswers) {
  // Ids 0, 3, 50 and 51 and nothing else: any other command fails the connection unparsed.
  auto con = connection();
  const CommandSet accepted = AgentHandler(con.get(), events, contexts, log).acceptedCommands();
  EXPECT_EQ(accepted.words[0], 0x000C000000000009ull);
  EXPECT_EQ(accepted.words[1] | accepted.words[2] | accepted.words[3], 0u);
  EXPECT_TRUE(accepted.extended.empty());
}

TEST_F(Forwarding, QueueTakesWholeBatchesUntilMoreThan1023Wait) {
  // With no connection, and with one still connecting: the drain before a refusal moves nothing,
  // so the refusals are exactly those of a plain limit, and queued events stay where they are.
  for (const bool withConnection : {false, true}) {
    SCOPED_TRACE(withConnection);
    connections.clear();
    events.clear();
    if (withConnection) connections.push_back(connection());
    const uint64_t refusedBefore = bufferFull;
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 1, batchOf(1023).data(), 1023));
    // At 1023 waiting a batch is still taken, whole: the limit is where refusing starts.
    const std::vector<EphemeralLogEvent> batch = batchOf(256);
    EXPECT_TRUE(offerBatch(events, connections, contexts, 0, 2, batch.data(), 256));
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, batch.data(), 256));
    EXPECT_FALSE(offerBatch(events, connections, contexts, 0, 3, batch.data(), 1));
    EXPECT_EQ(events.size(), 1023u + 256u);
    EXPECT_EQ(bufferFull - refusedBefore, 2u);
    EXPECT_EQ(events.front().timestamp, 1u);
    EXPECT_EQ(events.back().timestamp, 2u);
    if (withConnection) {
      EXPECT_TRUE(connections[0]->unacknowledged.empty());
    }
  }
}

TEST_F(Forwarding, DropVanishedKeepsEveryConnectionWhoseAddressIsResolved) {
  // Every pattern of kept and dropped over five connections, including none and all.
  for (unsigned keepMask = 0; keepMask < 32; ++keepMask) {
    SCOPED_TRACE(keepMask);
    connections.clear();
    ResolvedAddresses resolved;
    std::vector<IngesterConnection*> kept, left;
    for (uint16_t i = 0; i < 5; ++i) {
      connections.push_back(connection(static_cast<uint16_t>(40000 + i)));
      if (keepMask & (1u << i)) {
        resolved.emplace_back(loopbackInfo(static_cast<uint16_t>(40000 + i)));
        kept.push_back(connections.back().get());
      }
    }
    resolved.emplace_back(ConnectionError{"gone", "1", "not used by this stage"});
    dropVanished(connections, resolved);
    for (const auto& con : connections) left.push_back(con.get());
    EXPECT_THAT(left, UnorderedElementsAreArray(kept));
  }
}

TEST_F(Forwarding, TheCheckReplacesWhatIsDownAddsWhatIsNewAndDropsWhatVanished) {
  uint16_t live = 0;
  const int listener = listenOnLoopback(&live);  // never accepts: that connection stays up
  for (const uint16_t port : {uint16_t{1}, live}) {
    connections.push_back(connection(port));
    setupForwardConnection(connections.back(), events, loop, contexts, log);
  }
  connections[0]->unacknowledged.push_back({event("sent")});
  events = {event("waiting")};
  ASSERT_TRUE(runUntil(loop, [&] { return connections[0]->isDown(); }));
  IngesterConnection* const down = connections[0].get();
  IngesterConnection* const up = connections[1].get();
  const uint64_t connectsBefore = networkConnects;
  std::shared_mutex mutex;
  ResolvedAddresses resolved = {loopbackInfo(1), loopbackInfo(live), loopbackInfo(2)};

  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  ASSERT_EQ(connections.size(), 3u);
  EXPECT_NE(connections[0].get(), down);
  EXPECT_EQ(connections[0]->connectionInfo, loopbackInfo(1));
  EXPECT_EQ(connections[1].get(), up);
  EXPECT_EQ(connections[2]->connectionInfo, loopbackInfo(2));
  EXPECT_EQ(networkConnects - connectsBefore, 2u);
  EXPECT_THAT(texts(events), ElementsAre("sent", "waiting"));
  EXPECT_THAT(out.str(), HasSubstr("\"message\": \"Reconnecting to 127.0.0.1:1\"}"));
  // A new address is no reconnect.
  EXPECT_THAT(out.str(), ::testing::Not(HasSubstr("Reconnecting to 127.0.0.1:2")));

  // After a failed lookup nothing goes; after a clean one, what vanished does.
  resolved = {ConnectionError{"gone", "9", "lookup failed"}, loopbackInfo(live)};
  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  EXPECT_EQ(connections.size(), 3u);
  EXPECT_THAT(out.str(), HasSubstr("\"message\": \"Could not resolve gone:9: lookup failed\"}"));
  resolved.erase(resolved.begin());
  checkConnections(log, connections, events, loop, contexts, mutex, resolved);
  ASSERT_EQ(connections.size(), 1u);
  EXPECT_EQ(connections[0].get(), up);
  connections.clear();
  close(listener);
}

// One connection to a real endpoint, driven by the test's loop.
class ForwardingToEndpoint : public Forwarding {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(startSinkProcess(DROVER_SINK_BINARY, dir, {}, sink, port));
    LogEventSourceConfiguration config;
    config.writeToken = "token";
    context = contexts.registerContext(config);
    connections.push_back(connection(static_cast<uint16_t>(std::stoi(port))));
    setupForwardConnection(connections.front(), events, loop, contexts, log);
    ASSERT_TRUE(runUntil(loop, [&] { return contexts.isContextReady(context, first()); }))
        << out.str();
  }

  IngesterConnection* first() { return connections.front().get(); }

  TempDir dir;
  std::string port;
  std::unique_ptr<ChildProcess> sink;
  uint32_t context = 0;
};

TEST_F(ForwardingToEndpoint, AFullQueueIsDrainedBeforeABatchIsRefused) {
  // A front event whose context was never negotiated can't go: the drain moves nothing, so the
  // sources are held back.
  for (int i = 0; i < 1024; ++i) events.push_back(LogEvent{context + 1, 5, "stuck\n"});
  const uint64_t refusedBefore = bufferFull;
  EXPECT_FALSE(offerBatch(events, connections, contexts, context, 6, batchOf(1).data(), 1));
  EXPECT_EQ(bufferFull - refusedBefore, 1u);
  EXPECT_EQ(events.size(), 1024u);

  // The queue filled while the endpoint paused; now the connection can take events again.
  events.clear();
  for (int i = 0; i < 1100; ++i) events.push_back(LogEvent{context, 5, std::to_string(i) + "\n"});
  ASSERT_TRUE(first()->shouldSend());
  const std::vector<std::string> fresh = {"new 0\n", "new 1\n", "new 2\n"};
  std::vector<EphemeralLogEvent> batch;
  for (const std::string& text : fresh) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    batch.push_back({bytes, bytes + text.size()});
  }
  EXPECT_TRUE(offerBatch(events, connections, contexts, context, 6, batch.data(), 3));
  EXPECT_EQ(bufferFull - refusedBefore, 1u);
  EXPECT_LE(events.size(), 1023u + 3u);

  // Everything arrives once and in order: what waited first, then the new batch.
  std::vector<std::string> lines;
  runUntil(loop, [&] {
    lines = splitLines(readFile(dir.file("received")));
    return lines.size() >= 1103;
  });
  ASSERT_EQ(lines.size(), 1103u) << out.str();
  for (size_t i = 0; i < 1100; ++i) ASSERT_EQ(lines[i], std::to_string(i));
  EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
              ElementsAre("new 0", "new 1", "new 2"));
}

}  // namespace
