// The real agent against the real ingest endpoint on loopback, over TLS.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

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
    text += tag + " seq=" + std::to_string(i) + " " + std::string(static_cast<size_t>(i % 97), 'x') + "\n";
  }
  return text;
}

class EndToEnd : public ::testing::Test {
 protected:
  /// Starts the endpoint on an ephemeral loopback port; events arrive in `received` as raw bytes.
  void startSink(const std::vector<std::string>& flags = {}) {
    startSinkProcess(DROVER_SINK_BINARY, dir, flags, sink, port);
  }

  std::string target() const { return "127.0.0.1:" + port; }
  std::string received() const { return readFile(dir.file("received")); }
  std::string agentLog() const { return readFile(dir.file("drover.out")); }

  /// Starts `drover forward <words>` in the background.
  void startAgent(std::vector<std::string> words) {
    words.insert(words.begin(), {DROVER_BINARY, "forward"});
    agent = std::make_unique<ChildProcess>(words, dir.file("drover.out"), dir.file("drover.err"));
  }

  /// Waits until the agent's loop runs: its first counters line appears on the first pass.
  void waitUntilAgentRuns() {
    ASSERT_TRUE(waitFor([&] { return agentLog().find("eventsForwarded") != std::string::npos; }, 10s))
        << agentLog();
  }

  /// Waits until every distinct line of `count` has arrived; returns how often each came.
  std::map<std::string, int> waitForAllLines(size_t count, std::chrono::milliseconds limit) {
    std::map<std::string, int> arrivals;
    waitFor(
        [&] {
          arrivals.clear();
          for (const std::string& line : splitLines(received())) ++arrivals[line];
          return arrivals.size() >= count;
        },
        limit);
    return arrivals;
  }

  /// Starts the agent streaming a FIFO and returns the writing end, opened once the agent holds
  /// the reading end.
  int startFifoAgent() {
    const std::string fifo = dir.file("pipe");
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    startAgent({"stream", fifo, "token", "to", target()});
    const int fd = open(fifo.c_str(), O_WRONLY);
    EXPECT_GE(fd, 0);
    return fd;
  }

  /// Streams `lines` to the agent through a FIFO whose writer stays open until closeFifo(). While
  /// the writer is there the run cannot end, so it cannot end by design while a dead connection
  /// still holds unacknowledged batches; and the level-triggered pipe is never left unread, as a
  /// tail more than a read slice behind is until its file changes again.
  void streamThroughFifo(const std::string& lines) {
    fifoWriter = startFifoAgent();
    writer = std::thread([this, lines] {
      size_t done = 0;
      while (done < lines.size()) {
        const ssize_t n = write(fifoWriter, lines.data() + done, lines.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
      }
    });
  }

  /// The writer goes; the run then ends by itself once everything was sent.
  void closeFifo() {
    writer.join();
    close(fifoWriter);
    ASSERT_TRUE(agent->wait(30s)) << agentLog();
    EXPECT_EQ(agent->exitCode(), 0);
  }

  int fifoWriter = -1;
  std::thread writer;

  TempDir dir;
  std::string port;
  std::unique_ptr<ChildProcess> sink;
  std::unique_ptr<ChildProcess> agent;
};

TEST_F(EndToEnd, StreamArrivesWholeAndInOrderAndTheRunEndsByItself) {
  startSink();
  const std::string lines = numberedLines(1, 100000, "src=1");
  writeFile(dir.file("input.log"), lines);

  startAgent({"stream", dir.file("input.log"), "token-1", "to", target()});
  ASSERT_TRUE(agent->wait(60s)) << agentLog();
  EXPECT_EQ(agent->exitCode(), 0);

  EXPECT_TRUE(waitFor([&] { return received().size() >= lines.size(); }, 10s));
  EXPECT_TRUE(received() == lines) << "received " << received().size() << " of " << lines.size()
                                   << " bytes";
  EXPECT_EQ(countOf(agentLog(), "All sources completed. Waiting for sending connections to close."), 1u);
  // A file larger than one read slice reports each used-up slice, and a retry that fires after
  // the end of the stream finds its descriptor gone; nothing else is an error here.
  EXPECT_EQ(countOf(agentLog(), "\"level\":\"ERROR\""),
            countOf(agentLog(), "Read slice expired.") +
                countOf(agentLog(), ": Bad file descriptor\"}"))
      << agentLog();
}

TEST_F(EndToEnd, EmptyStreamEndsByItselfOnceConnected) {
  // A stream that ends before its connection is up leaves the closing run waiting for SIGINT
  // (finishing a connection that is still connecting fails it). So the input ends only after
  // the endpoint has accepted the connection and had time for the handshake.
  startSink();
  const int writeEnd = startFifoAgent();
  ASSERT_TRUE(waitFor(
      [&] { return readFile(dir.file("sink.err")).find("Accepted a connection") != std::string::npos; },
      10s));
  usleep(300000);
  close(writeEnd);
  ASSERT_TRUE(agent->wait(30s)) << agentLog();
  EXPECT_EQ(agent->exitCode(), 0);
  EXPECT_EQ(countOf(agentLog(), "All sources completed. Waiting for sending connections to close."), 1u);
  EXPECT_EQ(received(), "");
}

TEST_F(EndToEnd, EventsCarryTheirContextTokenAndTime) {
  // The JSON form of the endpoint shows what the agent negotiated and stamped.
  std::vector<std::string> argv = {DROVER_SINK_BINARY, "--listen", "127.0.0.1:0", "--print-port",
                                   "--out", dir.file("received")};
  sink = std::make_unique<ChildProcess>(argv, dir.file("sink.out"), dir.file("sink.err"), dir.path());
  ASSERT_TRUE(waitFor([&] { return std::regex_search(readFile(dir.file("sink.err")), std::regex("\n[0-9]+\n")); }, 10s));
  std::smatch match;
  const std::string err = readFile(dir.file("sink.err"));
  std::regex_search(err, match, std::regex("\n([0-9]+)\n"));
  port = match[1];
  writeFile(dir.file("a.log"), "first line\n2024-05-06 07:08:09.5 dated \"line\"\n");
  writeFile(dir.file("b.log"), "other\n");

  startAgent({"stream", dir.file("a.log"), "tok-a", "timestamps", "first-iso", "stream",
              dir.file("b.log"), "tok-b", "prepend", "b: ", "to", target()});
  ASSERT_TRUE(agent->wait(30s));
  EXPECT_EQ(agent->exitCode(), 0);
  ASSERT_TRUE(waitFor([&] { return splitLines(received()).size() == 3; }, 10s)) << received();

  std::map<std::string, std::string> byEvent;
  for (const std::string& line : splitLines(received())) {
    std::smatch fields;
    ASSERT_TRUE(std::regex_search(line, fields, std::regex("\"event\":\"(.*)\"\\}$"))) << line;
    byEvent[fields[1]] = line;
  }
  EXPECT_THAT(byEvent["b: other\\u000A"], HasSubstr("{\"token\":\"tok-b\",\"context\":1,"));
  EXPECT_THAT(byEvent["first line\\u000A"], HasSubstr("{\"token\":\"tok-a\",\"context\":0,"));
  EXPECT_THAT(byEvent["2024-05-06 07:08:09.5 dated \\\"line\\\"\\u000A"],
              HasSubstr("\"context\":0,\"timestamp\":1714979289500000000,"));
}

TEST_F(EndToEnd, TailSendsOnlyWhatIsAppendedAfterTheStart) {
  startSink();
  writeFile(dir.file("app.log"), "old line 1\nold line 2\n");
  startAgent({"tail", dir.file("app.log"), "token", "to", target()});
  waitUntilAgentRuns();

  const std::string fresh = numberedLines(1, 2000, "new");
  appendFile(dir.file("app.log"), fresh);
  EXPECT_TRUE(waitFor([&] { return received().size() >= fresh.size(); }, 15s));
  EXPECT_EQ(received(), fresh);

  // A tail never completes: only an interrupt ends the run, with status 0.
  agent->signal(SIGINT);
  ASSERT_TRUE(agent->wait(5s));
  EXPECT_EQ(agent->exitCode(), 0);
  EXPECT_EQ(countOf(agentLog(), "All sources completed."), 0u);
}

TEST_F(EndToEnd, FifoStreamEndsWhenItsWriterGoes) {
  startSink();
  const int writeEnd = startFifoAgent();
  const std::string lines = numberedLines(1, 20000, "fifo");
  ASSERT_EQ(write(writeEnd, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  close(writeEnd);

  ASSERT_TRUE(agent->wait(30s)) << agentLog();
  EXPECT_EQ(agent->exitCode(), 0);
  EXPECT_THAT(agentLog(), HasSubstr("Stream at " + dir.file("pipe") + " has ended."));
  EXPECT_TRUE(waitFor([&] { return received().size() >= lines.size(); }, 10s));
  EXPECT_TRUE(received() == lines);
}

TEST_F(EndToEnd, EveryResolvedEntryGetsItsOwnConnection) {
  startSink();
  const std::string lines = numberedLines(1, 5000, "two");
  writeFile(dir.file("input.log"), lines);
  // Two targets naming one address make two connections; each event goes over one of them.
  startAgent({"stream", dir.file("input.log"), "token", "to", target(), "to", target()});
  ASSERT_TRUE(agent->wait(30s));
  EXPECT_EQ(agent->exitCode(), 0);
  EXPECT_THAT(agentLog(), HasSubstr("\"networkConnects\":\"2\""));
  EXPECT_EQ(countOf(readFile(dir.file("sink.err")), "Accepted a connection from"), 2u);
  EXPECT_TRUE(waitFor([&] { return received().size() >= lines.size(); }, 10s));
  EXPECT_TRUE(received() == lines);
}

TEST_F(EndToEnd, LocalhostGivesOneConnectionPerAddress) {
  addrinfo hints{};
  hints.ai_flags = AI_ADDRCONFIG;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  ASSERT_EQ(getaddrinfo("localhost", "9", &hints, &list), 0);
  int addresses = 0;
  for (addrinfo* entry = list; entry; entry = entry->ai_next) ++addresses;
  freeaddrinfo(list);
  if (addresses < 2) GTEST_SKIP() << "localhost has " << addresses << " configured address here";

  startSink({"--listen", "::1:0"});
  writeFile(dir.file("input.log"), "one\n");
  startAgent({"stream", dir.file("input.log"), "token", "to", "localhost:" + port});
  waitUntilAgentRuns();
  EXPECT_THAT(agentLog(), HasSubstr("\"networkConnects\":\"" + std::to_string(addresses) + "\""));
}

TEST_F(EndToEnd, UnresolvableSecondTargetRefusesAfterTheFirstConnection) {
  startSink();
  writeFile(dir.file("input.log"), "line\n");
  startAgent({"stream", dir.file("input.log"), "token", "to", target(), "to", "no such host:9000"});
  ASSERT_TRUE(agent->wait(20s));
  EXPECT_EQ(agent->exitCode(), 1);
  const std::vector<std::string> lines = splitLines(agentLog());
  ASSERT_EQ(lines.size(), 2u) << agentLog();
  EXPECT_THAT(lines[0], HasSubstr("\"message\": \"Could not resolve: no such host:9000: "));
  EXPECT_THAT(lines[1], HasSubstr("\"message\": \"Could not resolve no such host:9000: "));
  EXPECT_EQ(received(), "");
}

TEST_F(EndToEnd, RemoteErrorClosesAndTheCheckReplacesTheConnection) {
  startSink({"--error-after", "2", "--faulty-connections", "1"});
  streamThroughFifo(numberedLines(1, 3000, "err"));
  // At least once: every line is there.
  EXPECT_EQ(waitForAllLines(3000, 60s).size(), 3000u);
  closeFifo();
  EXPECT_THAT(agentLog(), HasSubstr("\"peer\":\"" + target() +
                                    "\", \"application\":\"forward\", \"version\":"));
  EXPECT_THAT(agentLog(), HasSubstr("\"message\": \"Received remote error: injected error\"}"));
  EXPECT_THAT(agentLog(), HasSubstr("\"message\": \"Reconnecting to " + target() + "\"}"));
}

TEST_F(EndToEnd, RefusedTokenIsRetriedEveryFiveSeconds) {
  startSink({"--refuse-token", "bad-token"});
  writeFile(dir.file("app.log"), "");
  startAgent({"tail", dir.file("app.log"), "bad-token", "to", target()});
  const std::string refusal =
      "\"message\": \"Ingester context / write token registration failed: write token refused\"}";
  EXPECT_TRUE(waitFor([&] { return countOf(agentLog(), refusal) >= 2; }, 15s)) << agentLog();
  EXPECT_GE(countOf(agentLog(), "Reconnecting to " + target()), 1u);
  agent->signal(SIGINT);
  ASSERT_TRUE(agent->wait(5s));
  EXPECT_EQ(agent->exitCode(), 0);
}

TEST_F(EndToEnd, ClosesWithoutAcknowledgementLoseNothing) {
  startSink({"--close-after", "3", "--abrupt", "--faulty-connections", "3"});
  streamThroughFifo(numberedLines(1, 50000, "close"));
  const std::map<std::string, int> arrivals = waitForAllLines(50000, 90s);
  closeFifo();
  EXPECT_EQ(countOf(agentLog(), "\"message\": \"Reconnecting to " + target() + "\"}"), 3u);
  EXPECT_EQ(arrivals.size(), 50000u);
  int duplicates = 0;
  for (const auto& [line, count] : arrivals) duplicates += count - 1;
  RecordProperty("duplicates", duplicates);
  // Only what was in flight at each close comes twice.
  EXPECT_LT(duplicates, 3 * 5000);
}

TEST_F(EndToEnd, StalledEndpointHoldsSourcesBackAndMemoryStaysBounded) {
  startSink({"--stall-after", "1", "--stall-seconds", "12"});
  const std::string lines = numberedLines(1, 400000, "stall");
  writeFile(dir.file("input.log"), lines);
  startAgent({"stream", dir.file("input.log"), "token", "to", target()});

  long peakKib = 0;
  const bool ended = waitFor(
      [&] {
        peakKib = std::max(peakKib, agent->memoryKib());
        return agent->wait(0ms);
      },
      60s);
  ASSERT_TRUE(ended) << agentLog();
  EXPECT_EQ(agent->exitCode(), 0);
  RecordProperty("agent_peak_rss_kib", static_cast<int>(peakKib));
  // The queue limit and the send threshold hold memory down whatever the file's size (40 MB here).
  if (!SANITIZED_BUILD) {
    EXPECT_LT(peakKib, 32 * 1024);
  }
  const std::string log = agentLog();
  const std::regex counter("\"bufferFull\":\"([0-9]+)\"");
  long maxBufferFull = 0;
  for (auto it = std::sregex_iterator(log.begin(), log.end(), counter); it != std::sregex_iterator();
       ++it) {
    maxBufferFull = std::max(maxBufferFull, std::stol((*it)[1]));
  }
  EXPECT_GT(maxBufferFull, 1);
  EXPECT_TRUE(waitFor([&] { return received().size() >= lines.size(); }, 10s));
  EXPECT_TRUE(received() == lines);
}

}  // namespace
