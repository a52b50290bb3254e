// The real agent against the real ingest endpoint on loopback, over TLS. Each run checks several
// things at once, since a run costs time.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <set>

#include "tests/support/sink_process.h"
#include "tests/support/test_helpers.h"

namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

size_t countOf(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

std::string numberedLines(int first, int last, const std::string& tag) {
  std::string text;
  for (int i = first; i <= last; ++i) {
    text += tag + " seq=" + std::to_string(i) + " " + std::string(size_t(i % 97), 'x') + "\n";
  }
  return text;
}

struct Endpoint {
  TempDir dir;
  std::string port;
  std::unique_ptr<ChildProcess> process;
  std::string target() const { return "127.0.0.1:" + port; }
  std::string received() const { return readFile(dir.file("received")); }
  std::string log() const { return readFile(dir.file("sink.err")); }
};

class EndToEnd : public ::testing::Test {
 protected:
  Endpoint& startSink(const std::vector<std::string>& flags = {}) {
    sinks.push_back(std::make_unique<Endpoint>());
    Endpoint& sink = *sinks.back();
    startSinkProcess(DROVER_SINK_BINARY, sink.dir, flags, sink.process, sink.port);
    return sink;
  }

  /// Starts `drover forward <words>` in the background.
  void startAgent(std::vector<std::string> words) {
    words.insert(words.begin(), {DROVER_BINARY, "forward"});
    agent = std::make_unique<ChildProcess>(words, dir.file("drover.out"), dir.file("drover.err"));
  }
  std::string agentLog() const { return readFile(dir.file("drover.out")); }

  /// A FIFO source's writing end, opened once the agent holds the reading end. While it is
  /// open the source can't complete, so the run goes on.
  int openFifo() {
    const int fd = open(fifo.c_str(), O_WRONLY);
    EXPECT_GE(fd, 0);
    return fd;
  }

  void expectCleanEnd(std::chrono::milliseconds limit) {
    ASSERT_TRUE(agent->wait(limit)) << agentLog();
    EXPECT_EQ(agent->exitCode(), 0);
    EXPECT_THAT(agentLog(), HasSubstr("\"message\": \"Stream at " + fifo + " has ended.\"}"));
    EXPECT_EQ(
        countOf(agentLog(), "All sources completed. Waiting for sending connections to close."),
        1u);
  }

  void SetUp() override { ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0); }

  TempDir dir;
  const std::string fifo = dir.file("pipe");
  std::vector<std::unique_ptr<Endpoint>> sinks;
  std::unique_ptr<ChildProcess> agent;
};

TEST_F(EndToEnd, BigStreamThroughAStallArrivesWholeInOrderWithinBoundedMemory) {
  Endpoint& sink = startSink({"--stall-after", "1", "--stall-seconds", "2"});
  const std::string lines = numberedLines(1, 400000, "big");
  writeFile(dir.file("input.log"), lines);
  startAgent({"stream", dir.file("input.log"), "t1", "stream", fifo, "t2", "to", sink.target()});
  const int writer = openFifo();

  // The second counters line comes ten seconds in; the open FIFO keeps the run going to it.
  long peakKib = 0;
  const auto counters = [&] { return countOf(agentLog(), "\"networkConnects\":\"1\""); };
  EXPECT_TRUE(waitFor(
      [&] {
        peakKib = std::max(peakKib, agent->memoryKib());
        return counters() >= 2;
      },
      20s));
  close(writer);
  expectCleanEnd(10s);
  RecordProperty("agent_peak_rss_kib", static_cast<int>(peakKib));
  // The queue limit and the send threshold hold memory down whatever the file's size (26 MB).
  if (!SANITIZED_BUILD) {
    EXPECT_LT(peakKib, 32 * 1024);
  }
  const std::string log = agentLog();
  std::smatch last;
  ASSERT_TRUE(std::regex_search(log, last,
                                std::regex("\"loopBusy\":\"(\\d+)\", \"bufferFull\":\"(\\d+)\", "
                                           "\"eventsForwarded\":\"400000\"")))
      << log;
  EXPECT_GT(std::stol(last[1]), 0);  // a big transfer keeps the loop from waiting now and then
  EXPECT_GT(std::stol(last[2]), 1);
  EXPECT_TRUE(waitFor([&] { return sink.received().size() >= lines.size(); }, 10s));
  EXPECT_TRUE(sink.received() == lines) << sink.received().size() << " of " << lines.size();
  // A file larger than one read slice reports each used-up slice, and a retry that fires after
  // the end of the stream finds its descriptor gone; nothing else is an error here.
  EXPECT_EQ(countOf(log, "\"level\":\"ERROR\""),
            countOf(log, "Read slice expired.") + countOf(log, ": Bad file descriptor\"}"))
      << log;
}

TEST_F(EndToEnd, EventsCarryContextTokenAndTimeOverAConnectionPerResolvedEntry) {
  Endpoint& sink = startSink({"--format", "json"});
  writeFile(dir.file("a.log"), "first line\n2024-05-06 07:08:09.5 dated \"line\"\n");
  writeFile(dir.file("b.log"), "other\n");
  // Two targets naming one address make two connections; each event goes over one of them.
  startAgent({"stream", dir.file("a.log"), "tok-a", "timestamps", "first-iso", "stream",
              dir.file("b.log"), "tok-b", "prepend", "b: ", "stream", fifo, "tok-c", "to",
              sink.target(), "to", sink.target()});
  const int writer = openFifo();
  // The empty FIFO ends the run only once both connections are up: a connection still
  // connecting at the end fails, and the run then waits for SIGINT.
  ASSERT_TRUE(waitFor(
      [&] {
        return splitLines(sink.received()).size() == 3 &&
               countOf(sink.log(), "Accepted a connection from") == 2;
      },
      10s))
      << sink.received();
  close(writer);
  expectCleanEnd(30s);
  EXPECT_THAT(agentLog(), HasSubstr("\"networkConnects\":\"2\""));

  std::map<std::string, std::string> byEvent;
  for (const std::string& line : splitLines(sink.received())) {
    std::smatch fields;
    ASSERT_TRUE(std::regex_search(line, fields, std::regex("\"event\":\"(.*)\"\\}$"))) << line;
    byEvent[fields[1]] = line;
  }
  EXPECT_THAT(byEvent["b: other\\u000A"], HasSubstr("{\"token\":\"tok-b\",\"context\":1,"));
  EXPECT_THAT(byEvent["first line\\u000A"], HasSubstr("{\"token\":\"tok-a\",\"context\":0,"));
  EXPECT_THAT(byEvent["2024-05-06 07:08:09.5 dated \\\"line\\\"\\u000A"],
              HasSubstr("\"context\":0,\"timestamp\":1714979289500000000,"));
}

TEST_F(EndToEnd, FaultyEndpointsAreReplacedAndATailLosesNothing) {
  // Each endpoint fails only its first connection, in its own way, so the replacements that the
  // connection check makes five seconds in carry the rest.
  Endpoint& refusing = startSink({"--refuse-token", "tok", "--faulty-connections", "1"});
  Endpoint& erring = startSink({"--error-after", "2", "--faulty-connections", "1"});
  Endpoint& closing = startSink({"--close-after", "3", "--abrupt", "--faulty-connections", "1"});
  writeFile(dir.file("app.log"), "old line 1\nold line 2\n");
  startAgent({"tail", dir.file("app.log"), "tok", "to", refusing.target(), "to", erring.target(),
              "to", closing.target()});
  ASSERT_TRUE(waitFor([&] { return countOf(agentLog(), "networkConnects") > 0; }, 10s));

  // In parts: the first connection that can take events takes all that wait, so each faulty
  // endpoint needs a part of its own.
  const auto injected = [&] { return countOf(erring.log() + closing.log(), "Injecting a"); };
  std::set<std::string> appended;
  for (int part = 0; part < 3; ++part) {
    const std::string lines = numberedLines(part * 1000 + 1, part * 1000 + 1000, "tail");
    for (const std::string& line : splitLines(lines)) appended.insert(line);
    appendFile(dir.file("app.log"), lines);
    if (part < 2) {
      EXPECT_TRUE(waitFor([&] { return injected() > size_t(part); }, 10s));
    }
  }
  // At least once: every appended line arrives, the old ones don't.
  std::map<std::string, int> arrivals;
  std::set<std::string> arrived;
  const bool all = waitFor(
      [&] {
        arrivals.clear();
        for (const auto& sink : sinks) {
          for (const std::string& line : splitLines(sink->received())) ++arrivals[line];
        }
        return arrivals.size() >= 3000;
      },
      30s);
  EXPECT_TRUE(all) << arrivals.size() << "\n" << agentLog();
  int duplicates = 0;
  for (const auto& [line, count] : arrivals) {
    arrived.insert(line);
    duplicates += count - 1;
  }
  EXPECT_TRUE(arrived == appended);
  RecordProperty("duplicates", duplicates);
  EXPECT_LT(duplicates, 1000);  // only what was in flight at each fault comes twice

  // A tail never completes: only an interrupt ends the run, with status 0.
  agent->signal(SIGINT);
  ASSERT_TRUE(agent->wait(5s));
  EXPECT_EQ(agent->exitCode(), 0);
  const std::string log = agentLog();
  EXPECT_EQ(countOf(log, "All sources completed."), 0u);
  EXPECT_THAT(log, HasSubstr("\"message\": \"Ingester context / write token registration failed: "
                             "write token refused\"}"));
  EXPECT_THAT(log, HasSubstr("\"peer\":\"" + erring.target() +
                             "\", \"application\":\"forward\", \"version\":"));
  EXPECT_THAT(log, HasSubstr("\"message\": \"Received remote error: injected error\"}"));
  for (const auto& sink : sinks) {
    EXPECT_EQ(countOf(log, "\"message\": \"Reconnecting to " + sink->target() + "\"}"), 1u);
  }
}

}  // namespace
