// The real agent against the real ingest endpoint on loopback, over TLS. A run costs seconds, so
// each checks several things.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

size_t countOf(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

std::string numberedLines(int count, const std::string& tag) {
  std::string text;
  for (int i = 1; i <= count; ++i)
    text += tag + " seq=" + std::to_string(i) + " " + std::string(size_t(i % 97), 'x') + "\n";
  return text;
}

// An endpoint on a port of its own, its events in dir/received, and an agent shipping to it.
struct AgentRun {
  explicit AgentRun(std::vector<std::string> flags) {
    flags.insert(flags.begin(), {"--format", "raw", "--out", "received"});
    port = startSink(dir, flags, sink);
  }
  void start(std::vector<std::string> words) {
    words.insert(words.begin(), {DROVER_BINARY, "forward"});
    words.insert(words.end(), {"to", target()});
    agent = std::make_unique<ChildProcess>(words, dir.file("out"), dir.file("err"));
  }
  std::string target() const { return "127.0.0.1:" + std::to_string(port); }
  std::string received() const { return readFile(dir.file("received")); }
  std::string log() const { return readFile(dir.file("out")); }
  /// Waits for `text` in the agent's standard output, or in another of the run's files.
  bool logs(const std::string& text, const std::string& file = "out") {
    return waitFor([&] { return readFile(dir.file(file)).find(text) != std::string::npos; }, 15s);
  }

  TempDir dir;
  uint16_t port;
  std::unique_ptr<ChildProcess> sink, agent;
};

TEST(EndToEnd, BigStreamThroughAStallArrivesWholeInOrderAndTheRunEndsByItself) {
  AgentRun run({"--stall-after", "1", "--stall-seconds", "2"});
  const std::string lines = numberedLines(400000, "big"), fifo = run.dir.file("pipe");
  writeFile(run.dir.file("big.log"), lines);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  run.start({"stream", run.dir.file("big.log"), "t1", "stream", fifo, "t2"});
  // The FIFO can't complete while its writer is there: the run goes on to the first counters line
  // after the transfer, ten seconds in. Then what the FIFO gets follows the file, less than a
  // pipe holds, and the run ends by itself.
  const int writer = open(fifo.c_str(), O_WRONLY);
  long peakKib = 0;
  EXPECT_TRUE(waitFor(
      [&] {
        peakKib = std::max(peakKib, run.agent->memoryKib());
        return run.log().find("\"eventsForwarded\":\"400000\"") != std::string::npos;
      },
      60s));
  const std::string more = numberedLines(1000, "fifo");
  EXPECT_EQ(write(writer, more.data(), more.size()), ssize_t(more.size()));
  close(writer);
  ASSERT_TRUE(run.agent->wait(10s) && run.agent->exitCode() == 0) << run.log();
  EXPECT_TRUE(waitFor([&] { return run.received().size() >= lines.size() + more.size(); }, 10s));
  EXPECT_TRUE(run.received() == lines + more) << run.received().size() << " of " << lines.size();
  // The queue limit and the send threshold hold memory down whatever the file's size (26 MB).
  EXPECT_TRUE(SANITIZED_BUILD || peakKib < 32 * 1024) << peakKib << " KiB";
  // That counters line: the sources were held back, and the loop had no time to wait at times.
  const std::string log = run.log();
  EXPECT_THAT(log,
              ContainsRegex("\"loopBusy\":\"[1-9][0-9]*\", \"bufferFull\":\"([2-9]|[0-9][0-9]+)\", "
                            "\"eventsForwarded\":\"400000\""));
  EXPECT_THAT(log, HasSubstr("\"message\": \"Stream at " + fifo + " has ended.\"}"));
  EXPECT_EQ(countOf(log, "All sources completed. Waiting for sending connections to close."), 1u);
  // A file larger than one read slice reports each used-up slice, and a retry that fires after
  // the end of the stream finds its descriptor gone; nothing else is an error here.
  EXPECT_EQ(countOf(log, "\"level\":\"ERROR\""),
            countOf(log, "Read slice expired.") + countOf(log, ": Bad file descriptor\"}"))
      << log;
}

// A stream that sends nothing ends the run by itself once its connection is up. (Input that ends
// while the connection is still being made leaves the run waiting for SIGINT: finishing a
// connection that is connecting fails it.)
TEST(EndToEnd, EmptyStreamEndsByItselfOnceConnected) {
  AgentRun run({});
  const std::string fifo = run.dir.file("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  run.start({"stream", fifo, "t"});
  const int writer = open(fifo.c_str(), O_WRONLY);
  EXPECT_TRUE(run.logs("Accepted a connection", "sink.err"));
  usleep(300000);  // the handshake
  close(writer);
  ASSERT_TRUE(run.agent->wait(30s)) << run.log();
  EXPECT_EQ(run.agent->exitCode(), 0);
  EXPECT_EQ(countOf(run.log(), "All sources completed. Waiting for sending connections to close."),
            1u);
  EXPECT_EQ(run.received(), "");
}

TEST(EndToEnd, FaultyEndpointsAreReplacedAndTailsLoseNothing) {
  // Each endpoint fails the first of two connections in its own way, and the connection check
  // replaces it five seconds in; the agents run side by side. Fewer lines than the queue's limit,
  // since a tail refused a whole batch waits for its file to change.
  const std::vector<std::pair<std::vector<std::string>, std::string>> faults = {
      {{"--refuse-token", "tok"},
       "Ingester context / write token registration failed: write token refused"},
      {{"--error-after", "2"}, "\"message\": \"Received remote error: injected error\"}"},
      {{"--close-after", "3", "--abrupt"}, "Error on the connection from"}};
  const std::string lines = numberedLines(1000, "tail");
  std::vector<std::unique_ptr<AgentRun>> runs;
  for (auto [flags, message] : faults) {
    flags.insert(flags.end(), {"--faulty-connections", "1", "--format", "json"});
    AgentRun& run = *runs.emplace_back(std::make_unique<AgentRun>(flags));
    writeFile(run.dir.file("app.log"), "old line\n");
    writeFile(run.dir.file("a.log"), "first line\n2024-05-06 07:08:09.5 dated \"line\"\n");
    writeFile(run.dir.file("b.log"), "other\n");
    run.start({"tail", run.dir.file("app.log"), "tok", "stream", run.dir.file("a.log"), "tok-a",
               "timestamps", "first-iso", "stream", run.dir.file("b.log"), "tok-b", "prepend",
               "b: ", "to", run.target()});
    ASSERT_TRUE(run.logs("networkConnects"));  // the loop runs
    appendFile(run.dir.file("app.log"), lines);
  }
  for (size_t i = 0; i < faults.size(); ++i) {
    SCOPED_TRACE(faults[i].second);
    AgentRun& run = *runs[i];
    EXPECT_TRUE(run.logs(faults[i].second));
    EXPECT_TRUE(run.logs("\"message\": \"Reconnecting to " + run.target() + "\"}")) << run.log();
    EXPECT_TRUE(run.logs("\"peer\":\"" + run.target() + "\"")) << run.log();  // its lines say whose
    // At least once: every appended line arrives, the old one doesn't, and only what was in
    // flight at the fault comes twice.
    std::map<std::string, int> arrivals;
    EXPECT_TRUE(waitFor(
        [&] {
          arrivals.clear();
          for (const std::string& line : splitLines(run.received())) {
            const size_t at = line.find("\"event\":\"tail seq=") + 9;
            if (at > 8) ++arrivals[line.substr(at, line.size() - at - 9)];  // without \u000A"}
          }
          return arrivals.size() >= 1000;
        },
        10s))
        << run.log();
    const std::string received = run.received();
    EXPECT_LT(countOf(received, "\"event\":\"tail seq="), 1000u + 512);
    EXPECT_EQ(countOf(received, "old line"), 0u);
    EXPECT_EQ(countOf(received, "\"token\":\"\""), 0u);  // nothing before its context is ready
    // Contexts count in source order; each event carries its own token, and its time.
    EXPECT_THAT(received, ContainsRegex("\"token\":\"tok-a\",\"context\":1,\"timestamp\":"
                                        "1714979289500000000,[^\n]*dated"));
    EXPECT_THAT(received, ContainsRegex("\"token\":\"tok-b\",\"context\":2,[^\n]*\"b: other"));
    // A tail never completes: only an interrupt ends the run, with status 0.
    run.agent->signal(SIGINT);
    EXPECT_TRUE(run.agent->wait(5s) && run.agent->exitCode() == 0);
    EXPECT_EQ(countOf(run.log(), "All sources completed."), 0u);
    EXPECT_EQ(countOf(run.log(), "Reconnecting to"), 1u);
    EXPECT_THAT(run.log(), HasSubstr("\"networkConnects\":\"2\""));  // one per resolved entry
  }
}

}  // namespace
