// The assertions that guard the sources' configuration order and their buffer arithmetic.
#include "sources/log_event_source.h"

#include <sys/stat.h>

#include <csignal>

#include "sources/stream_log_event_source.h"
#include "sources/tail_log_event_source.h"
#include "tests/sources/source_test_helpers.h"

namespace {

class SourceDeathTest : public SourceFixture {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The loop ignores SIGCHLD, which would reap the child that the death test waits for.
    signal(SIGCHLD, SIG_DFL);
    writeFile(path, "");
  }

  const std::string path = dir.file("app.log");
};

TEST_F(SourceDeathTest, RegistrationOrder) {
  TailLogEventSource tail(log, path, "token");
  EXPECT_DEATH(tail.registerAt(loop), "Assertion `ingestContextsMap' failed");
  StreamLogEventSource stream(log, path, "token");
  EXPECT_DEATH(stream.registerAt(loop), "Assertion `ingestContextsMap' failed");

  configure(tail);
  tail.registerAt(loop);
  EXPECT_DEATH(tail.registerAt(loop), "Assertion `!loop' failed");
  EXPECT_DEATH(tail.setPrepend("late"), "Assertion `!loop' failed");
}

TEST_F(SourceDeathTest, ATailOnAFifoCannotSeekToItsEnd) {
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_DEATH(TailLogEventSource(log, fifo, "token"), "Assertion `false' failed");
}

TEST_F(SourceDeathTest, EventsAndBatches) {
  StreamLogEventSource source(log, path, "token");
  source.setPrepend("x");
  configure(source);
  EXPECT_DEATH(source.handleEvents(nullptr, 0), "Assertion `count > 0' failed");
  const std::string line(MAXIMUM_EVENT_LENGTH, 'y');
  const auto* bytes = reinterpret_cast<const uint8_t*>(line.data());
  EXPECT_DEATH(
      source.handleEvent(bytes, bytes + line.size()),
      R"(Assertion `prepend\.size\(\) \+ \(end - begin\) <= MAXIMUM_EVENT_LENGTH' failed)");
}

TEST_F(SourceDeathTest, APrependThatLeavesNoBufferSpace) {
  TailLogEventSource source(log, path, "token");
  source.setPrepend(std::string(65526, 'p'));
  configure(source);
  EXPECT_DEATH(source.consume(), "Assertion `bufferSpace > 0' failed");
}

}  // namespace
