// The assertions that guard the sources' configuration order and their buffer arithmetic.
#include "sources/log_event_source.h"

#include <sys/stat.h>

#include <csignal>

#include "sources/stream_log_event_source.h"
#include "sources/tail_log_event_source.h"
#include "tests/sources/source_test_helpers.h"

namespace {

using SourceDeathTest = SourceFixture;

TEST_F(SourceDeathTest, MisuseAndImpossibleSizesAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The loop ignores SIGCHLD, which would reap the child that the death test waits for.
  signal(SIGCHLD, SIG_DFL);
  writeFile(path, "");
  TailLogEventSource tail(log, path, "token");
  EXPECT_DEATH(tail.registerAt(loop), "Assertion `ingestContextsMap' failed");
  StreamLogEventSource stream(log, path, "token");
  EXPECT_DEATH(stream.registerAt(loop), "Assertion `ingestContextsMap' failed");
  configure(tail);
  tail.registerAt(loop);
  EXPECT_DEATH(tail.registerAt(loop), "Assertion `!loop' failed");
  EXPECT_DEATH(tail.setPrepend("late"), "Assertion `!loop' failed");

  stream.setPrepend("x");
  configure(stream);
  EXPECT_DEATH(stream.handleEvents(nullptr, 0), "Assertion `count > 0' failed");
  const std::string line(MAXIMUM_EVENT_LENGTH, 'y');
  const auto* bytes = reinterpret_cast<const uint8_t*>(line.data());
  EXPECT_DEATH(
      stream.handleEvent(bytes, bytes + line.size()),
      R"(Assertion `prepend\.size\(\) \+ \(end - begin\) <= MAXIMUM_EVENT_LENGTH' failed)");

  // A prepend that leaves the read buffer no room.
  TailLogEventSource crowded(log, path, "token");
  crowded.setPrepend(std::string(65526, 'p'));
  configure(crowded);
  EXPECT_DEATH(crowded.consume(), "Assertion `bufferSpace > 0' failed");

  // A tail cannot seek to the end of a FIFO.
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_DEATH(TailLogEventSource(log, fifo, "token"), "Assertion `false' failed");
}

}  // namespace
