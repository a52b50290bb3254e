// drover-sink as a black box: the real binary on an ephemeral port in a fresh directory, driven
// by a TLS client made of the protocol's own classes on a test loop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"
#include "support/log.h"
#include "tests/support/address_helpers.h"
#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::HasSubstr;
constexpr size_t npos = std::string::npos;

// What the sink sent a client. A base of the client, so that the log outlives the connection.
struct Received {
  std::vector<CmdIngestContextRegistered> registered;
  std::vector<CmdIngestConfigAck> configAcks;
  std::vector<uint64_t> acks;
  std::vector<std::string> errors;
  std::ostringstream logText;
  bool failed = false, finished = false;
};

// What an agent accepts from an ingester, recorded.
struct Recorder {
  Received* got;
  // Ids 0 (error), 3 (context registered), 50 (config acknowledged) and 51 (batch acknowledged).
  CommandSet acceptedCommands() const { return {{1 | 1 << 3 | 1ull << 50 | 1ull << 51}, {}}; }
  void operator()(CmdError&& cmd) { got->errors.push_back(cmd.message); }
  void operator()(CmdIngestContextRegistered&& cmd) { got->registered.push_back(cmd); }
  void operator()(CmdIngestConfigAck&& cmd) { got->configAcks.push_back(cmd); }
  void operator()(CmdIngestLogAck&& cmd) { got->acks.push_back(cmd.sequence); }
};

// An agent's connection on the test loop that can also put arbitrary bytes on the wire.
class TestClient : public Received, public NetworkConnection {
 public:
  TestClient(EventLoop& testLoop, uint16_t port)
      : NetworkConnection(Log(logText), loopbackInfo(port), true) {
    setHandler(std::make_unique<NetworkCmdHandler<Recorder>>(Recorder{this}));
    setErrorHandler([this] { failed = true; });
    setFinishedHandler([this] { finished = true; });
    setReadClosedHandler([this] { finish(); });
    registerAt(&testLoop);
  }

  void configure(uint32_t context, uint64_t enableAck,
                 std::map<std::string, std::string> strings = {}) {
    send(CmdIngestConfig{
        context,
        {{"enable_ack", enableAck}, {"timestamp_divider", 1000000}, {"truncate_timestamp", 1}},
        std::move(strings)});
  }
  void sendBatch(uint32_t context, uint64_t timestamp, const std::vector<std::string>& events) {
    std::vector<EphemeralLogEvent> views;
    for (const std::string& event : events) views.push_back(eventOf(event));
    send(CmdIngestLogEvents{context, timestamp, views.data(), static_cast<uint32_t>(views.size())});
  }
  /// A header that claims `length` bytes in all, then `body` as it is.
  void sendRaw(uint32_t length, uint16_t id, const std::string& body = "") {
    OutgoingPacket packet(this, 0, static_cast<uint32_t>(body.size()));
    uint8_t* header = sendWrite - PACKET_HEADER_SIZE;
    packet.writeBytes(body.data(), body.size());
    memcpy(header, &length, 4);
    memcpy(header + 4, &id, 2);
  }
};

class SinkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NetworkConnection::Initialize(Log(std::cerr), false, true); }

  void start(const std::vector<std::string>& flags = {}) { port = startSink(dir, flags, sink); }
  std::string err() const { return readFile(dir.file("sink.err")); }
  std::string output() const { return readFile(dir.file("sink.out")); }
  bool errGets(const std::string& text) {
    return waitFor([&] { return err().find(text) != npos; }, 5s);
  }
  /// The sink's exit status after SIGTERM, or once it ended by itself; -1 if it didn't.
  int exitStatus(bool terminate = true) {
    if (terminate) sink->signal(SIGTERM);
    return sink->wait(10s) ? sink->exitCode() : -1;
  }

  bool run(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    return runUntil(loop, done, limit);
  }

  /// A client with one context negotiated, `enableAck` as asked.
  std::unique_ptr<TestClient> negotiated(const std::string& token = "t", uint64_t enableAck = 1) {
    auto client = std::make_unique<TestClient>(loop, port);
    client->send(CmdRegisterIngestContext{token, 0});
    client->configure(0, enableAck);
    EXPECT_TRUE(run([&] { return !client->configAcks.empty(); }));
    return client;
  }

  /// A registration and its answer. The sink handles a connection's packets in order, so
  /// whatever it was going to send for earlier packets has arrived once this returns.
  void roundTrip(TestClient& client) {
    const size_t before = client.registered.size();
    client.send(CmdRegisterIngestContext{"barrier", 999});
    ASSERT_TRUE(run([&] { return client.registered.size() > before; }));
  }

  /// A FIFO for the sink's output whose read end the test holds, opened first so that the sink's
  /// open doesn't wait for a reader. Until the test reads, the output is as slow as can be.
  std::string outputFifo() {
    const std::string path = dir.file("events.fifo");
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0) << strerror(errno);
    fifo = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return path;
  }
  /// Appends whatever the FIFO holds right now to `received`; returns its lines.
  size_t drain() {
    char chunk[65536];
    ssize_t got;
    while ((got = read(fifo, chunk, sizeof chunk)) > 0) {
      received.append(chunk, got);
      receivedLines += static_cast<size_t>(std::count(chunk, chunk + got, '\n'));
    }
    return receivedLines;
  }
  ~SinkTest() override { close(fifo); }

  TempDir dir;
  std::ostringstream loopLog;
  EventLoop loop{Log(loopLog)};
  std::unique_ptr<ChildProcess> sink;
  uint16_t port = 0;
  int fifo = -1;
  std::string received;  // from the FIFO
  size_t receivedLines = 0;
};

TEST_F(SinkTest, NegotiatesAndWritesAndAcknowledgesBatchesByTheirNumberOnTheConnection) {
  start({"--refuse-token", "bad", "--config-extra", "bogus", "--config-omit", "timestamp_divider",
         "--exit-after-events", "8"});
  auto client = std::make_unique<TestClient>(loop, port);
  client->send(CmdRegisterIngestContext{"ac\"ked", 5});
  client->send(CmdRegisterIngestContext{"silent", 1});
  client->send(CmdRegisterIngestContext{"bad", 2});
  client->configure(5, 1);
  client->configure(1, 0, {{"parser", "json"}});
  ASSERT_TRUE(run([&] { return client->configAcks.size() == 2; }));
  EXPECT_THAT(client->registered, ElementsAre(FieldsAre(5u, ""), FieldsAre(1u, ""),
                                              FieldsAre(2u, "write token refused")));
  EXPECT_EQ(client->configAcks[1].context, 1u);
  EXPECT_THAT(client->configAcks[1].options,
              ElementsAre("enable_ack", "truncate_timestamp", "parser", "bogus"));

  // Batches are numbered across contexts; only those of the acknowledged context are answered.
  client->sendBatch(5, 1700000000123456789ull,
                    {"q\"uote\\\n", std::string("nul\0\n", 5), "caf\xc3\xa9 caf\xe9\n", ""});
  client->sendBatch(1, 2, {"b\n", "c\n"});
  client->sendBatch(5, 3, {"d\n"});
  ASSERT_TRUE(run([&] { return client->acks.size() == 2; }));
  roundTrip(*client);
  EXPECT_THAT(client->acks, ElementsAre(0u, 2u));
  // Each event a JSON line that gives its bytes back, \uDCXX for a byte outside UTF-8.
  const std::string prefix =
      "{\"token\":\"ac\\\"ked\",\"context\":5,\"timestamp\":1700000000123456789,"
      "\"connection\":0,\"batch\":0,\"event\":\"";
  const std::string lines = prefix + "q\\\"uote\\\\\\u000A\"}\n" + prefix +
                            "nul\\u0000\\u000A\"}\n" + prefix +
                            "caf\xc3\xa9 caf\\uDCE9\\u000A\"}\n" + prefix + "\"}\n";
  EXPECT_EQ(output().substr(0, lines.size()), lines);
  // A second connection counts its own batches from 0. Its event is the eighth: the sink ends by
  // itself, and the client's loop has to run for the bytes to leave.
  auto second = negotiated("acked");
  second->sendBatch(0, 4, {"e\n"});
  run([&] { return second->failed || second->finished; });
  EXPECT_EQ(exitStatus(false), 0);
  EXPECT_THAT(splitLines(output()).back(), HasSubstr("\"connection\":1,\"batch\":0,"));
  EXPECT_THAT(err(), HasSubstr("\"events\":\"8\", \"batches\":\"4\", "
                               "\"open_connections\":\"2\", \"connections\":\"2\""));
}

TEST_F(SinkTest, NoAckWritesTheBareBytesAndTerminationTheRest) {
  const std::string bytes("nul\0 caf\xe9\n", 10);
  start({"--format", "raw", "--out", "events.raw", "--no-ack"});
  auto client = negotiated();
  client->sendBatch(0, 1, {"x\n"});
  ASSERT_TRUE(run([&] { return readFile(dir.file("events.raw")) == "x\n"; }, 3s));
  client->sendBatch(0, 2, {bytes, ""});
  roundTrip(*client);
  EXPECT_TRUE(client->acks.empty());
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_EQ(readFile(dir.file("events.raw")), "x\n" + bytes);
  EXPECT_EQ(output(), "");  // --out takes the events off standard output
  EXPECT_THAT(err(), HasSubstr("\"message\": \"Intake total\""));
}

// An error ends the exchange: batches after it are dropped unwritten and unacknowledged. Only
// the first connection misbehaves.
TEST_F(SinkTest, FaultsComeOnceAfterTheAcknowledgementsOnTheFaultyConnectionsOnly) {
  start({"--error-after", "2", "--faulty-connections", "1"});
  auto first = negotiated();
  for (uint64_t i = 0; i < 3; ++i) first->sendBatch(0, i, {"x\n"});
  ASSERT_TRUE(run([&] { return !first->errors.empty(); }));
  first->sendBatch(0, 9, {"y\n"});
  roundTrip(*first);
  EXPECT_THAT(first->errors, ElementsAre("injected error"));
  EXPECT_THAT(first->acks, ElementsAre(0u, 1u));
  EXPECT_EQ(splitLines(output()).size(), 2u);
  auto second = negotiated();
  for (uint64_t i = 0; i < 3; ++i) second->sendBatch(0, i, {"y\n"});
  ASSERT_TRUE(run([&] { return second->acks.size() == 3; }));
  EXPECT_TRUE(second->errors.empty());

  // An unaccepted command, after the acknowledgement too, fails the agent's side. Idle from the
  // first event on, the sink then ends by itself.
  start({"--send-unaccepted-after", "1", "--exit-after-idle", "0.2"});
  auto client = negotiated();
  client->sendBatch(0, 1, {"x\n"});
  ASSERT_TRUE(run([&] { return client->failed; }));
  EXPECT_THAT(client->acks, ElementsAre(0u));
  EXPECT_THAT(client->logText.str(), HasSubstr("Received unaccepted command: 1"));
  EXPECT_EQ(exitStatus(false), 0);
  EXPECT_EQ(splitLines(output()).size(), 1u);
}

TEST_F(SinkTest, CloseAfterClosesInOrderOrAbruptlyAndFreesPeersThatClosedFirst) {
  for (const bool abrupt : {false, true}) {
    SCOPED_TRACE(abrupt ? "abrupt" : "orderly");
    std::vector<std::string> flags = {"--close-after", "2", "--report-interval", "0.1"};
    if (abrupt) flags.push_back("--abrupt");
    start(flags);
    auto client = negotiated();
    for (uint64_t i = 0; i < 2; ++i) client->sendBatch(0, i, {"x\n"});
    ASSERT_TRUE(run([&] { return client->failed || client->finished; }));
    EXPECT_EQ(client->finished, !abrupt);
    EXPECT_TRUE(abrupt || (client->acks == std::vector<uint64_t>{0, 1}));
    // A peer whose own close comes before the due one, as at the end of a stream run.
    auto early = negotiated();
    for (uint64_t i = 0; i < 2; ++i) early->sendBatch(0, i, {"x\n"});
    early->finish();
    ASSERT_TRUE(run([&] { return early->finished || early->failed; }));
    // A report from before the second connection can't match.
    EXPECT_TRUE(errGets("\"open_connections\":\"0\", \"connections\":\"2\""));
    EXPECT_EQ(exitStatus(), 0);
    EXPECT_THAT(err(), ::testing::Not(HasSubstr("Could not close socket")));
  }
}

// The largest packet the sink takes, full of empty events: the most one packet makes it hold.
TEST_F(SinkTest, RefusesLargerPacketsAndGivesTheMemoryOfTheLargestBack) {
  if (SANITIZED_BUILD) GTEST_SKIP() << "a sanitizer's quarantine keeps freed memory";
  start({"--format", "raw", "--report-interval", "0.1"});
  const uint32_t length = 1 << 20, events = (length - PACKET_HEADER_SIZE - 16) / 2;
  auto oversized = std::make_unique<TestClient>(loop, port);
  oversized->sendRaw(length + 1, CmdIngestLogEvents::ID);
  ASSERT_TRUE(run([&] { return oversized->failed; }));
  EXPECT_TRUE(errGets("Received package too large (1048577), terminating connection"));

  auto client = negotiated();
  const long rss = sink->memoryKib("VmRSS");
  std::string body(length - PACKET_HEADER_SIZE, '\0');
  memcpy(body.data() + 12, &events, 4);
  client->sendRaw(length, CmdIngestLogEvents::ID, body);
  ASSERT_TRUE(run([&] { return client->acks.size() == 1; }));
  client->finish();
  ASSERT_TRUE(run([&] { return client->finished; }));
  ASSERT_TRUE(errGets("\"events\":\"" + std::to_string(events) +
                      "\", \"batches\":\"1\", \"open_connections\":\"0\", \"connections\":\"2\""));
  // The allocator may return freed memory a moment later.
  EXPECT_TRUE(waitFor([&] { return sink->memoryKib("VmRSS") - rss < 2048; }, 2s))
      << rss << " KiB before, " << sink->memoryKib("VmRSS") << " after";
}

// Only one of them makes the pair, the key readable by its owner alone; the rest use it.
TEST(SinkStart, SinksStartedTogetherInAFreshDirectoryShareOneKeyPair) {
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    TempDir dir;
    const std::vector<std::string> argv = {DROVER_SINK_BINARY, "--listen", "127.0.0.1:0"};
    std::deque<ChildProcess> sinks;
    for (int i = 0; i < 6; ++i)
      sinks.emplace_back(argv, "/dev/null", dir.file(std::to_string(i)), dir.path());
    size_t made = 0;
    for (int i = 0; i < 6; ++i) {
      const std::string path = dir.file(std::to_string(i));
      std::string err;
      EXPECT_TRUE(waitFor([&] { return (err = readFile(path)).find("Listening on") != npos; }, 10s))
          << err;
      made += err.find("Made a self-signed") != npos;
    }
    EXPECT_EQ(made, 1u);
    struct stat key {};
    ASSERT_EQ(stat(dir.file("brindlewood.key").c_str(), &key), 0);
    EXPECT_EQ(key.st_mode & 0777, 0600u);
  }
}

constexpr size_t EVENT_SIZE = 1000, PER_BATCH = 64;

// Sends batches `from` to `to` (not included) of PER_BATCH numbered events of EVENT_SIZE bytes
// on a connection of its own, batch numbers for times; returns the lines they make in the output.
std::string sendNumberedBatches(TestClient& client, uint64_t from, uint64_t to) {
  std::string lines;
  for (uint64_t batch = from; batch < to; ++batch) {
    std::vector<std::string> events;
    for (size_t i = 0; i < PER_BATCH; ++i) {
      std::string event = "event-" + std::to_string(batch * PER_BATCH + i) + " ";
      event.resize(EVENT_SIZE - 1, 'x');
      events.push_back(event + "\n");
      lines += "{\"token\":\"t\",\"context\":0,\"timestamp\":" + std::to_string(batch) +
               ",\"connection\":0,\"batch\":" + std::to_string(batch) + ",\"event\":\"" + event +
               "\\u000A\"}\n";
    }
    client.sendBatch(0, batch, events);
  }
  return lines;
}

TEST_F(SinkTest, BlockedOutputNeitherStopsReadingNorGetsAcknowledgedAndHoldsTheAgentBackLater) {
  constexpr uint64_t FIRST = 4, TOTAL = 512;  // 256 KiB, below the queue's limit; 32 MiB in all
  start({"--out", outputFifo()});
  auto client = negotiated();
  // Nobody reads the output, yet a registration behind 256 KiB of batches gets its answer.
  std::string expected = sendNumberedBatches(*client, 0, FIRST);
  roundTrip(*client);

  // Far more than the queue and the socket buffers take: the sink stops reading, and the agent's
  // bytes wait on its side, not in the sink's memory.
  expected += sendNumberedBatches(*client, FIRST, TOTAL);
  run([] { return false; }, 2s);
  EXPECT_GT(client->usedSendBuffer(), 0u);
  // The program and its queue, no more.
  EXPECT_TRUE(SANITIZED_BUILD || sink->memoryKib() < 24 * 1024) << sink->memoryKib() << " KiB";
  // Whatever was acknowledged so far is in the pipe already; the pipe holds only a little.
  const size_t acked = client->acks.size();
  EXPECT_LT(acked, FIRST);
  EXPECT_GE(drain(), acked * PER_BATCH);
  EXPECT_TRUE(expected.starts_with(received));

  // Once somebody reads, the sink resumes by itself and everything arrives, in order.
  ASSERT_TRUE(run([&] { return drain() && client->acks.size() == TOTAL; }, 60s));
  for (uint64_t i = 0; i < TOTAL; ++i) ASSERT_EQ(client->acks[i], i);
  drain();
  EXPECT_TRUE(received == expected) << received.size() << " bytes of " << expected.size();
  EXPECT_EQ(exitStatus(), 0);
}

// A stall waits for the acknowledgements before it, which wait for a slow output; meanwhile the
// peer's bytes keep the socket readable. Then it holds the reading for its time.
TEST_F(SinkTest, StallWaitsForASlowOutputWithoutSpinningThenHoldsReading) {
  start({"--out", outputFifo(), "--stall-after", "4", "--stall-seconds", "1"});
  auto client = negotiated();
  // 512 KiB: more than the pipe takes, less than the output queue's limit.
  const std::string expected = sendNumberedBatches(*client, 0, 8);
  run([] { return false; }, 300ms);
  const double before = sink->cpuSeconds();
  run([] { return false; }, 1s);
  EXPECT_LT(sink->cpuSeconds() - before, 0.3);
  ASSERT_TRUE(run([&] { return drain() && client->acks.size() >= 4; }, 10s));
  const auto stalled = std::chrono::steady_clock::now();
  ASSERT_TRUE(run([&] { return drain() && client->acks.size() == 8; }, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - stalled, 600ms);
  EXPECT_TRUE(received == expected) << received.size() << " bytes of " << expected.size();
}

TEST_F(SinkTest, BatchesHeldForTheOutputAreWrittenAfterTheirPeerClosed) {
  constexpr uint64_t TOTAL = 256;  // 16 MiB: far more than the queue, so some wait unparsed
  start({"--out", outputFifo()});
  auto client = negotiated("t", 0);
  const std::string expected = sendNumberedBatches(*client, 0, TOTAL);
  client->finish();
  // The output is read only from here on; the close may have come while batches were held.
  ASSERT_TRUE(run([&] { return drain() == TOTAL * PER_BATCH && client->finished; }, 30s));
  EXPECT_TRUE(received == expected) << received.size() << " bytes of " << expected.size();
  EXPECT_EQ(exitStatus(), 0);
}

TEST(SinkCommandLine, RefusesBadFlagsWithStatus2AndNamesThem) {
  std::istringstream cases(
      "--bogus,--listen localhost:9000,--listen 127.0.0.1:65536,--format xml,--exit-after-events,"
      "--exit-after-events -1,--report-interval 0,--handshake-timeout 0,--abrupt,--stall-after 3");
  for (std::string flags; std::getline(cases, flags, ',');) {
    SCOPED_TRACE(flags);
    const ProcessResult result = runProcess({"/bin/sh", "-c", DROVER_SINK_BINARY " " + flags}, 10s);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.err.substr(0, result.err.find('\n')),
                HasSubstr(flags.substr(0, flags.find(' '))));
    EXPECT_THAT(result.err, HasSubstr("Usage: drover-sink"));
  }
}

}  // namespace
