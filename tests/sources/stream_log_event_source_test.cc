#include "sources/stream_log_event_source.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/sources/source_test_helpers.h"

namespace {

using ::testing::ElementsAre;

class StreamSource : public SourceFixture {
 protected:
  const std::string fifo = dir.file("fifo");
  const std::string ended = logLine("INFO", "Stream at " + fifo + " has ended.");
};

TEST_F(StreamSource, ARegularFileEndsAtItsFirstEmptyReadWithoutItsUnterminatedLine) {
  const std::string path = dir.file("old.log");
  writeFile(path, "one\ntwo\nthree");
  StreamLogEventSource source(log, path, "token");
  configure(source);
  source.registerAt(loop);
  ASSERT_TRUE(runUntil(loop, [&] { return source.isCompleted(); }));
  appendFile(path, "\nfour\n");
  runBriefly();
  EXPECT_THAT(sunk.events, ElementsAre("one\n", "two\n"));
  EXPECT_THAT(logLines(), ElementsAre(logLine("INFO", "Stream at " + path + " has ended.")));
}

TEST_F(StreamSource, AFifoWaitsSilentlyUntilItsLastWriterHasGone) {
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  StreamLogEventSource source(log, fifo, "token");
  configure(source);
  source.registerAt(loop);
  source.registerAt(loop);  // allowed: unregistering clears the binding
  const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "a\n", 2), 2);
  ASSERT_TRUE(runUntil(loop, [&] { return sunk.events.size() == 1; }));
  runBriefly();
  EXPECT_EQ(out.str(), "");
  EXPECT_FALSE(source.isCompleted());

  ASSERT_EQ(write(writer, "b\nc", 3), 3);
  close(writer);
  ASSERT_TRUE(runUntil(loop, [&] { return source.isCompleted(); }));
  EXPECT_THAT(sunk.events, ElementsAre("a\n", "b\n"));
  EXPECT_THAT(logLines(), ElementsAre(ended));
}

TEST_F(StreamSource, ARetryAfterTheEndReadsTheDroppedDescriptorOnce) {
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  StreamLogEventSource source(log, fifo, "token");
  configure(source);
  source.registerAt(loop);
  const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "a\n", 2), 2);
  close(writer);
  // Batch and single line are refused, arming the retry; the hang-up wakes the source at once,
  // the line goes out and the stream ends before the retry fires.
  sunk.accept = [&](uint32_t) { return sunk.calls > 2; };
  ASSERT_TRUE(runUntil(
      loop, [&] { return logLines().size() == 2; }, std::chrono::seconds(3)));
  runBriefly();
  EXPECT_THAT(sunk.events, ElementsAre("a\n"));
  EXPECT_THAT(logLines(), ElementsAre(ended, logLine("ERROR", "Could not read from file " + fifo +
                                                                  ": Bad file descriptor")));
}

TEST_F(StreamSource, AFileThatCannotBeOpenedIsCompletedAndGetsNoWakeUp) {
  const std::string missing = dir.file("missing");
  StreamLogEventSource source(log, missing, "");
  EXPECT_FALSE(source.isAvailable());
  EXPECT_TRUE(source.isCompleted());
  configure(source);
  source.registerAt(loop);
  runBriefly();
  EXPECT_THAT(logLines(), ElementsAre(logLine("ERROR", "Could not open " + missing +
                                                           ": No such file or directory")));
}

}  // namespace
