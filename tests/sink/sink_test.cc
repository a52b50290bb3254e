// drover-sink as a black box: the real binary on an ephemeral port in a fresh directory, driven
// by a TLS client made of the protocol's own classes on a test loop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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
#include "tests/support/test_helpers.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

size_t countOf(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// A running drover-sink in `dir`, on a port of its own choice: standard output to "stdout",
// standard error to "stderr". Killed at destruction if it is still running.
class SinkProcess {
 public:
  SinkProcess(const TempDir& dir, const std::vector<std::string>& flags)
      : errPath(dir.file("stderr")),
        child(command(flags), dir.file("stdout"), errPath, dir.path()) {}

  /// The port from --print-port: the one line of standard error that is a bare number.
  uint16_t port() {
    uint16_t found = 0;
    waitFor(
        [&] {
          for (const std::string& line : splitLines(err())) {
            if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) {
              found = static_cast<uint16_t>(std::stoul(line));
            }
          }
          return found != 0;
        },
        10s);
    return found;
  }

  /// Its exit status once it ended by itself, -1 if it didn't within `limit`.
  int waitForExit(std::chrono::milliseconds limit = 10s) {
    return child.wait(limit) ? child.exitCode() : -1;
  }
  int terminate() {
    child.signal(SIGTERM);
    return waitForExit();
  }
  std::string err() const { return readFile(errPath); }
  /// Whether `text` shows up on standard error within `limit`.
  bool errGets(const std::string& text, std::chrono::milliseconds limit = 5s) {
    return waitFor([&] { return err().find(text) != std::string::npos; }, limit);
  }
  const ChildProcess& process() const { return child; }

 private:
  static std::vector<std::string> command(const std::vector<std::string>& flags) {
    std::vector<std::string> words = {DROVER_SINK_BINARY, "--listen", "127.0.0.1:0",
                                      "--print-port"};
    words.insert(words.end(), flags.begin(), flags.end());
    return words;
  }

  std::string errPath;
  ChildProcess child;
};

// A client connection that can also put arbitrary bytes on the wire, for hostile peers.
class ClientConnection : public NetworkConnection {
 public:
  ClientConnection(const Log& baseLog, uint16_t port)
      : NetworkConnection(baseLog, loopbackInfo(port), true) {}

  /// `bytes` (at least a header's worth) exactly as given, header included.
  void sendRaw(const std::string& bytes) {
    OutgoingPacket packet(this, 0, static_cast<uint32_t>(bytes.size() - PACKET_HEADER_SIZE));
    uint8_t* header = sendWrite - PACKET_HEADER_SIZE;
    packet.writeBytes(bytes.data() + PACKET_HEADER_SIZE, bytes.size() - PACKET_HEADER_SIZE);
    memcpy(header, bytes.data(), PACKET_HEADER_SIZE);
  }
};

struct Received {
  std::vector<CmdIngestContextRegistered> registered;
  std::vector<CmdIngestConfigAck> configAcks;
  std::vector<uint64_t> acks;
  std::vector<std::string> errors;
};

// What an agent accepts from an ingester, recorded.
class ClientHandler {
 public:
  explicit ClientHandler(Received* into) : got(into) {}
  CommandSet acceptedCommands() const {
    CommandSet set;
    for (const uint16_t id : {uint16_t{0}, uint16_t{3}, uint16_t{50}, uint16_t{51}}) set.insert(id);
    return set;
  }
  void operator()(CmdError&& cmd) { got->errors.push_back(cmd.message); }
  void operator()(CmdIngestContextRegistered&& cmd) { got->registered.push_back(cmd); }
  void operator()(CmdIngestConfigAck&& cmd) { got->configAcks.push_back(cmd); }
  void operator()(CmdIngestLogAck&& cmd) { got->acks.push_back(cmd.sequence); }

 private:
  Received* got;
};

class TestClient {
 public:
  TestClient(EventLoop& loop, uint16_t port) : con(Log(logText), port) {
    con.setHandler(std::make_unique<NetworkCmdHandler<ClientHandler>>(&got));
    con.setErrorHandler([this] { failed = true; });
    con.setFinishedHandler([this] { finished = true; });
    con.setReadClosedHandler([this] { con.finish(); });
    con.registerAt(&loop);
  }

  void registerToken(const std::string& token, uint32_t context) {
    con.send(CmdRegisterIngestContext{token, context});
  }
  void configure(uint32_t context, uint64_t enableAck,
                 std::map<std::string, std::string> strings = {}) {
    con.send(CmdIngestConfig{
        context,
        {{"enable_ack", enableAck}, {"timestamp_divider", 1000000}, {"truncate_timestamp", 1}},
        std::move(strings)});
  }
  void sendBatch(uint32_t context, uint64_t timestamp, const std::vector<std::string>& events) {
    std::vector<EphemeralLogEvent> views;
    for (const std::string& event : events) {
      const auto* begin = reinterpret_cast<const uint8_t*>(event.data());
      views.push_back({begin, begin + event.size()});
    }
    con.send(
        CmdIngestLogEvents{context, timestamp, views.data(), static_cast<uint32_t>(views.size())});
  }

  std::ostringstream logText;  // the connection's log; declared first, it outlives the connection
  Received got;
  bool failed = false;
  bool finished = false;
  ClientConnection con;
};

class SinkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NetworkConnection::Initialize(Log(std::cerr), false, true); }

  SinkTest() : loop(Log(loopLog)) {
    // The loop ignores SIGCHLD, which would reap the sink behind our back and lose its status.
    signal(SIGCHLD, SIG_DFL);
  }

  std::unique_ptr<SinkProcess> startSink(const std::vector<std::string>& flags = {}) {
    auto sink = std::make_unique<SinkProcess>(dir, flags);
    port = sink->port();
    EXPECT_NE(port, 0) << sink->err();
    return sink;
  }
  std::unique_ptr<TestClient> connect() { return std::make_unique<TestClient>(loop, port); }
  bool run(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    return runUntil(loop, done, limit);
  }

  /// A client with one context negotiated, `enableAck` as asked.
  std::unique_ptr<TestClient> negotiated(const std::string& token = "t", uint32_t context = 0,
                                         uint64_t enableAck = 1) {
    auto client = connect();
    client->registerToken(token, context);
    client->configure(context, enableAck);
    EXPECT_TRUE(run([&] { return !client->got.configAcks.empty(); }));
    return client;
  }

  /// A registration and its answer. The sink handles a connection's packets in order, so
  /// whatever it was going to send for earlier packets has arrived once this returns.
  void roundTrip(TestClient& client) {
    const size_t before = client.got.registered.size();
    client.registerToken("barrier", 999);
    ASSERT_TRUE(run([&] { return client.got.registered.size() > before; }));
  }

  std::string output() { return readFile(dir.file("stdout")); }

  TempDir dir;
  std::ostringstream loopLog;
  EventLoop loop;
  uint16_t port = 0;
};

TEST_F(SinkTest, NegotiatesAndAcknowledgesBatchesByTheirNumberOnTheConnection) {
  auto sink = startSink({"--refuse-token", "bad", "--config-extra", "bogus"});
  auto client = connect();
  client->registerToken("acked", 0);
  client->registerToken("silent", 1);
  client->registerToken("bad", 2);
  client->configure(0, 1);
  client->configure(1, 0, {{"parser", "json"}});
  ASSERT_TRUE(run([&] { return client->got.configAcks.size() == 2; }));
  ASSERT_EQ(client->got.registered.size(), 3u);
  EXPECT_EQ(client->got.registered[1].context, 1u);
  EXPECT_EQ(client->got.registered[1].error, "");
  EXPECT_EQ(client->got.registered[2].error, "write token refused");
  EXPECT_EQ(client->got.configAcks[1].context, 1u);
  EXPECT_THAT(
      client->got.configAcks[1].options,
      ElementsAre("enable_ack", "timestamp_divider", "truncate_timestamp", "parser", "bogus"));

  // Batches are numbered across contexts; only those of the acknowledged context are answered.
  client->sendBatch(0, 1, {"a\n"});
  client->sendBatch(1, 2, {"b\n", "c\n"});
  client->sendBatch(0, 3, {"d\n"});
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 2; }));
  roundTrip(*client);
  EXPECT_THAT(client->got.acks, ElementsAre(0u, 2u));
  // A second connection counts its own batches from 0.
  auto second = negotiated("acked");
  second->sendBatch(0, 4, {"e\n"});
  ASSERT_TRUE(run([&] { return second->got.acks == std::vector<uint64_t>{0}; }));
  EXPECT_THAT(splitLines(output()).back(), HasSubstr("\"connection\":1,\"batch\":0,"));

  EXPECT_EQ(sink->terminate(), 0);
  EXPECT_THAT(sink->err(), HasSubstr("\"events\":\"5\", \"batches\":\"4\", "
                                     "\"open_connections\":\"2\", \"connections\":\"2\""));
}

TEST_F(SinkTest, WritesEachEventAsAJsonLineThatGivesItsBytesBackOrAsTheBareBytes) {
  const std::vector<std::string> events = {"plain\n", "q\"uote\\\n", std::string("nul\0\n", 5),
                                           "caf\xc3\xa9 caf\xe9\n", ""};
  {
    auto sink = startSink();
    auto client = negotiated("to\"k", 7);
    client->sendBatch(7, 1700000000123456789ull, events);
    // The acknowledgement comes only after the events were written.
    ASSERT_TRUE(run([&] { return client->got.acks.size() == 1; }));
    const std::string prefix =
        "{\"token\":\"to\\\"k\",\"context\":7,\"timestamp\":1700000000123456789,"
        "\"connection\":0,\"batch\":0,\"event\":\"";
    EXPECT_EQ(output(), prefix + "plain\\u000A\"}\n" + prefix + "q\\\"uote\\\\\\u000A\"}\n" +
                            prefix + "nul\\u0000\\u000A\"}\n" + prefix +
                            "caf\xc3\xa9 caf\\uDCE9\\u000A\"}\n" + prefix + "\"}\n");
  }
  auto sink = startSink({"--format", "raw", "--out", "events.raw"});
  auto client = negotiated();
  client->sendBatch(0, 1, events);
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 1; }));
  std::string bytes;
  for (const std::string& event : events) bytes += event;
  EXPECT_EQ(readFile(dir.file("events.raw")), bytes);
}

// An error ends the exchange: batches after it are dropped unwritten and unacknowledged. Only
// the first connection misbehaves.
TEST_F(SinkTest, ErrorAfterSendsTheErrorOnceOnTheFaultyConnectionsOnly) {
  auto sink = startSink({"--error-after", "2", "--faulty-connections", "1"});
  auto first = negotiated();
  for (uint64_t i = 0; i < 3; ++i) first->sendBatch(0, i, {"x\n"});
  ASSERT_TRUE(run([&] { return !first->got.errors.empty(); }));
  first->sendBatch(0, 9, {"y\n"});
  roundTrip(*first);
  EXPECT_THAT(first->got.errors, ElementsAre("injected error"));
  EXPECT_THAT(first->got.acks, ElementsAre(0u, 1u));
  EXPECT_EQ(splitLines(output()).size(), 2u);
  auto second = negotiated();
  for (uint64_t i = 0; i < 3; ++i) second->sendBatch(0, i, {"y\n"});
  ASSERT_TRUE(run([&] { return second->got.acks.size() == 3; }));
  EXPECT_THAT(second->got.errors, IsEmpty());
}

TEST_F(SinkTest, CloseAfterClosesInOrderOrAbruptlyAndFreesPeersThatClosedFirst) {
  for (const bool abrupt : {false, true}) {
    SCOPED_TRACE(abrupt ? "abrupt" : "orderly");
    std::vector<std::string> flags = {"--close-after", "2", "--report-interval", "0.1"};
    if (abrupt) flags.push_back("--abrupt");
    auto sink = startSink(flags);
    auto client = negotiated();
    client->sendBatch(0, 1, {"x\n"});
    client->sendBatch(0, 2, {"x\n"});
    ASSERT_TRUE(run([&] { return client->failed || client->finished; }));
    EXPECT_EQ(client->finished, !abrupt);
    if (!abrupt) {
      EXPECT_THAT(client->got.acks, ElementsAre(0u, 1u));
    }
    // A peer whose own close comes before the due one, as at the end of a stream run.
    auto early = negotiated();
    early->sendBatch(0, 1, {"x\n"});
    early->sendBatch(0, 2, {"x\n"});
    early->con.finish();
    ASSERT_TRUE(run([&] { return early->finished || early->failed; }));
    EXPECT_TRUE(sink->errGets("\"open_connections\":\"0\""));
    EXPECT_EQ(sink->terminate(), 0);
    EXPECT_THAT(sink->err(), Not(HasSubstr("Could not close socket")));
  }
}

// Without acknowledgements the output is still written, by the periodic flush and at the end.
TEST_F(SinkTest, NoAckWritesEventsAndTerminationFlushesTheRest) {
  auto sink = startSink({"--no-ack"});
  auto client = negotiated();
  client->sendBatch(0, 1, {"x\n"});
  ASSERT_TRUE(run([&] { return !output().empty(); }, 3s));
  client->sendBatch(0, 2, {"y\n", "z\n"});
  roundTrip(*client);
  EXPECT_THAT(client->got.acks, IsEmpty());
  EXPECT_EQ(sink->terminate(), 0);
  EXPECT_EQ(splitLines(output()).size(), 3u);
  EXPECT_THAT(sink->err(), HasSubstr("\"message\": \"Intake total\""));
}

TEST_F(SinkTest, StallStopsReadingOnceForTheGivenTime) {
  auto sink = startSink({"--stall-after", "1", "--stall-seconds", "1"});
  auto client = negotiated();
  client->sendBatch(0, 1, {"x\n"});
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 1; }));
  auto sent = std::chrono::steady_clock::now();
  client->sendBatch(0, 2, {"y\n"});
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 2; }));
  EXPECT_GE(std::chrono::steady_clock::now() - sent, 600ms);
  // Once per connection: a second stall would hold this batch for another second.
  sent = std::chrono::steady_clock::now();
  client->sendBatch(0, 3, {"z\n"});
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 3; }));
  EXPECT_LT(std::chrono::steady_clock::now() - sent, 600ms);
}

TEST_F(SinkTest, SendUnacceptedAfterMakesTheAgentSideFail) {
  auto sink = startSink({"--send-unaccepted-after", "1"});
  auto client = negotiated();
  client->sendBatch(0, 1, {"x\n"});
  ASSERT_TRUE(run([&] { return client->failed; }));
  EXPECT_THAT(client->got.acks, ElementsAre(0u));
  EXPECT_THAT(client->logText.str(), HasSubstr("Received unaccepted command: 1"));
}

// The largest packet the sink takes, full of empty events: the most one packet makes it hold.
TEST_F(SinkTest, RefusesLargerPacketsAndGivesTheMemoryOfTheLargestBack) {
  if (SANITIZED_BUILD) GTEST_SKIP() << "a sanitizer's quarantine keeps freed memory";
  auto sink = startSink({"--format", "raw", "--report-interval", "0.1"});
  auto oversized = connect();
  const uint32_t tooLong = (1 << 20) + 1, length = 1 << 20;
  oversized->con.sendRaw(std::string(reinterpret_cast<const char*>(&tooLong), 4) + "\x04\0"s);
  ASSERT_TRUE(run([&] { return oversized->failed; }));
  EXPECT_TRUE(sink->errGets("Received package too large (1048577), terminating connection"));

  auto client = negotiated();
  const long rss = sink->process().memoryKib("VmRSS");
  const uint32_t events = (length - PACKET_HEADER_SIZE - 16) / 2;
  std::string packet(length, '\0');
  const uint16_t id = CmdIngestLogEvents::ID;
  memcpy(packet.data(), &length, 4);
  memcpy(packet.data() + 4, &id, 2);
  memcpy(packet.data() + PACKET_HEADER_SIZE + 12, &events, 4);
  client->con.sendRaw(packet);
  ASSERT_TRUE(run([&] { return client->got.acks.size() == 1; }));
  client->con.finish();
  ASSERT_TRUE(run([&] { return client->finished; }));
  ASSERT_TRUE(sink->errGets("\"events\":\"" + std::to_string(events) + "\""));
  ASSERT_TRUE(sink->errGets("\"open_connections\":\"0\""));
  // The allocator may return freed memory a moment later.
  EXPECT_TRUE(waitFor([&] { return sink->process().memoryKib("VmRSS") - rss < 2048; }, 2s))
      << rss << " KiB before, " << sink->process().memoryKib("VmRSS") << " after";
}

TEST_F(SinkTest, ExitsByItselfAfterEnoughEventsOrIdleTime) {
  const std::vector<std::string> flags[] = {{"--exit-after-events", "3"},
                                            {"--exit-after-idle", "0.2"}};
  for (const auto& exitFlags : flags) {
    SCOPED_TRACE(exitFlags[0]);
    std::vector<std::string> all = exitFlags;
    all.push_back("--no-ack");
    auto sink = startSink(all);
    auto client = negotiated();
    client->sendBatch(0, 1, {"1\n", "2\n"});
    client->sendBatch(0, 2, {"3\n", "4\n"});
    // The client loop has to run for the bytes to leave; the sink's exit ends the wait.
    run([&] { return client->failed; });
    EXPECT_EQ(sink->waitForExit(), 0);
    EXPECT_EQ(splitLines(output()).size(), 4u);
  }
}

// Only one of them makes the pair, the key readable by its owner alone; the rest use it.
TEST(SinkStart, SinksStartedTogetherInAFreshDirectoryShareOneKeyPair) {
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    TempDir dir;
    std::vector<std::unique_ptr<ChildProcess>> sinks;
    for (int i = 0; i < 6; ++i) {
      sinks.push_back(std::make_unique<ChildProcess>(
          std::vector<std::string>{DROVER_SINK_BINARY, "--listen", "127.0.0.1:0"},
          dir.file(std::to_string(i) + ".out"), dir.file(std::to_string(i) + ".err"), dir.path()));
    }
    size_t made = 0;
    for (int i = 0; i < 6; ++i) {
      const std::string err = dir.file(std::to_string(i) + ".err");
      EXPECT_TRUE(
          waitFor([&] { return readFile(err).find("Listening on") != std::string::npos; }, 10s))
          << readFile(err);
      made += countOf(readFile(err), "Made a self-signed");
    }
    EXPECT_EQ(made, 1u);
    struct stat key {};
    ASSERT_EQ(stat(dir.file("brindlewood.key").c_str(), &key), 0);
    EXPECT_EQ(key.st_mode & 0777, 0600u);
  }
}

// The read end of a FIFO that the sink writes its events to, opened first so that the sink's
// open doesn't wait for a reader. Until the test reads, the output is as slow as can be.
class OutputFifo {
 public:
  explicit OutputFifo(const TempDir& dir) : path(dir.file("events.fifo")) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0) << strerror(errno);
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  ~OutputFifo() { close(fd); }

  /// Appends whatever the pipe holds right now to `received`; returns its lines.
  size_t drain() {
    char chunk[65536];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0) received.append(chunk, got);
    return countOf(received, "\n");
  }

  const std::string path;
  std::string received;

 private:
  int fd = -1;
};

constexpr size_t EVENT_SIZE = 1000, PER_BATCH = 64;

// Sends batches `from` to `to` (not included) of PER_BATCH numbered events of EVENT_SIZE bytes.
void sendNumberedBatches(TestClient& client, uint64_t from, uint64_t to) {
  for (uint64_t batch = from; batch < to; ++batch) {
    std::vector<std::string> events;
    for (size_t i = 0; i < PER_BATCH; ++i) {
      std::string event = "event-" + std::to_string(batch * PER_BATCH + i) + " ";
      event.resize(EVENT_SIZE - 1, 'x');
      events.push_back(event + "\n");
    }
    client.sendBatch(0, batch, events);
  }
}

// Checks that `output` holds the JSON lines of events 0, 1, ... in order, PER_BATCH to a batch
// numbered from 0, and returns how many.
size_t checkNumberedLines(const std::string& output) {
  size_t index = 0;
  for (const std::string& line : splitLines(output)) {
    const std::string batch = "\"batch\":" + std::to_string(index / PER_BATCH) + ",";
    const std::string event = "\"event\":\"event-" + std::to_string(index) + " ";
    if (line.find(batch) == std::string::npos || line.find(event) == std::string::npos) {
      ADD_FAILURE() << "line " << index << " is out of order: " << line.substr(0, 160);
      break;
    }
    ++index;
  }
  return index;
}

TEST_F(SinkTest, BlockedOutputNeitherStopsReadingNorGetsAcknowledgedAndHoldsTheAgentBackLater) {
  constexpr uint64_t FIRST = 4, TOTAL = 512;  // 256 KiB, below the queue's limit; 32 MiB in all
  OutputFifo fifo(dir);
  auto sink = startSink({"--out", fifo.path});
  auto client = negotiated();
  // Nobody reads the output, yet a registration behind 256 KiB of batches gets its answer.
  sendNumberedBatches(*client, 0, FIRST);
  roundTrip(*client);

  // Far more than the queue and the socket buffers take: the sink stops reading, and the agent's
  // bytes wait on its side, not in the sink's memory.
  sendNumberedBatches(*client, FIRST, TOTAL);
  run([] { return false; }, 2s);
  EXPECT_GT(client->con.usedSendBuffer(), 0u);
  if (!SANITIZED_BUILD) {
    EXPECT_LT(sink->process().memoryKib(), 24 * 1024);  // the program and its queue, no more
  }
  // Whatever was acknowledged so far is in the pipe already; the pipe holds only a little.
  const size_t acked = client->got.acks.size();
  EXPECT_LT(acked, FIRST);
  fifo.drain();
  EXPECT_GE(checkNumberedLines(fifo.received), acked * PER_BATCH);

  // Once somebody reads, the sink resumes by itself and everything arrives, in order.
  ASSERT_TRUE(run([&] { return fifo.drain() && client->got.acks.size() == TOTAL; }, 60s));
  for (uint64_t i = 0; i < TOTAL; ++i) ASSERT_EQ(client->got.acks[i], i);
  fifo.drain();
  EXPECT_EQ(checkNumberedLines(fifo.received), TOTAL * PER_BATCH);
  EXPECT_EQ(sink->terminate(), 0);
}

// A stall waits for the acknowledgements before it, which wait for a slow output; meanwhile the
// peer's bytes keep the socket readable.
TEST_F(SinkTest, AStallWaitingForASlowOutputDoesNotSpin) {
  OutputFifo fifo(dir);
  auto sink = startSink({"--out", fifo.path, "--stall-after", "4", "--stall-seconds", "1"});
  auto client = negotiated();
  // 512 KiB: more than the pipe takes, less than the output queue's limit.
  sendNumberedBatches(*client, 0, 8);
  run([] { return false; }, 300ms);
  const double before = sink->process().cpuSeconds();
  run([] { return false; }, 1s);
  EXPECT_LT(sink->process().cpuSeconds() - before, 0.3);
  ASSERT_TRUE(run([&] { return fifo.drain() && client->got.acks.size() == 8; }, 10s));
  EXPECT_EQ(checkNumberedLines(fifo.received), 8 * PER_BATCH);
}

TEST_F(SinkTest, BatchesHeldForTheOutputAreWrittenAfterTheirPeerClosed) {
  constexpr uint64_t TOTAL = 256;  // 16 MiB: far more than the queue, so some wait unparsed
  OutputFifo fifo(dir);
  auto sink = startSink({"--out", fifo.path});
  auto client = negotiated("t", 0, 0);
  sendNumberedBatches(*client, 0, TOTAL);
  client->con.finish();
  // The output is read only from here on; the close may have come while batches were held.
  ASSERT_TRUE(run([&] { return fifo.drain() == TOTAL * PER_BATCH && client->finished; }, 30s));
  EXPECT_EQ(checkNumberedLines(fifo.received), TOTAL * PER_BATCH);
  EXPECT_EQ(sink->terminate(), 0);
}

TEST(SinkCommandLine, RefusesBadFlagsWithStatus2AndNamesThem) {
  const std::vector<std::vector<std::string>> cases = {
      {"--bogus"},
      {"--listen", "localhost:9000"},
      {"--listen", "127.0.0.1:65536"},
      {"--format", "xml"},
      {"--exit-after-events"},
      {"--exit-after-events", "-1"},
      {"--report-interval", "0"},
      {"--handshake-timeout", "0"},
      {"--abrupt"},
      {"--stall-after", "3"},
  };
  for (const auto& flags : cases) {
    SCOPED_TRACE(flags[0]);
    std::vector<std::string> argv = {DROVER_SINK_BINARY};
    argv.insert(argv.end(), flags.begin(), flags.end());
    const ProcessResult result = runProcess(argv, 10s);
    EXPECT_EQ(result.exitCode, 2);
    ASSERT_FALSE(result.err.empty());
    EXPECT_THAT(splitLines(result.err)[0], HasSubstr(flags[0]));
    EXPECT_THAT(result.err, HasSubstr("Usage: drover-sink"));
  }
}

}  // namespace
