#include "sources/stream_log_event_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/sources/source_test_helpers.h"

namespace {

using ::testing::ElementsAre;
using StreamSource = SourceFixture;

// A regular file is read a slice of sixteen full buffers per tick and ends at its first empty
// read, without its unterminated line; a file that cannot be opened is completed from the start.
TEST_F(StreamSource, AFileEndsAtItsFirstEmptyReadAndAMissingOneAtOnce) {
  const std::string missing = dir.file("missing");
  EXPECT_TRUE(StreamLogEventSource(log, missing, "").isCompleted());
  // 134 divides the 65526-byte buffer: every read is full and leaves no partial line.
  std::string content;
  for (int i = 0; i < 8000; ++i) content += std::string(133, 'x') + "\n";
  writeFile(path, content + "three");
  StreamLogEventSource source(log, path, "token");
  configure(source);
  source.registerAt(loop);
  ASSERT_TRUE(runUntil(loop, [&] { return !events.empty(); }));
  EXPECT_EQ(events.size() * 134, 1048416u);
  ASSERT_TRUE(runUntil(loop, [&] { return source.isCompleted(); }));
  appendFile(path, "\nfour\n");
  runBriefly();
  EXPECT_EQ(events.size(), 8000u);
  EXPECT_THAT(logLines(), ElementsAre(logLine("ERROR", "Could not open " + missing +
                                                           ": No such file or directory"),
                                      logLine("ERROR", "Read slice expired."),
                                      logLine("INFO", "Stream at " + path + " has ended.")));
}

// A FIFO's life: a refused batch waits for the one-second retry (on an emptied pipe nothing else
// wakes the source), the empty pipe's EAGAIN is silent, the end comes with the last writer and
// drops the unterminated line, and a retry that fires after the end reads the dropped descriptor
// once.
TEST_F(StreamSource, AFifoRetriesRefusalsAndEndsWhenItsLastWriterHasGone) {
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  StreamLogEventSource source(log, fifo, "token");
  configure(source);
  source.registerAt(loop);
  source.registerAt(loop);  // allowed: unregistering clears the binding
  const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  accept = [] { return false; };
  ASSERT_EQ(write(writer, "a\nb\nc\n", 6), 6);
  // The batch of three, then the first line alone, which arms the retry.
  ASSERT_TRUE(runUntil(loop, [&] { return calls - batchSizes.size() == 2; }));
  const auto refused = std::chrono::steady_clock::now();
  accept = [] { return true; };
  ASSERT_TRUE(runUntil(loop, [&] { return events.size() == 3; }));
  EXPECT_GE(std::chrono::steady_clock::now() - refused, std::chrono::milliseconds(900));
  runBriefly();
  EXPECT_EQ(out.str(), "");
  EXPECT_FALSE(source.isCompleted());

  // Refused twice again; the hang-up wakes the source at once, the line goes out and the stream
  // ends before the retry fires.
  accept = [&, before = calls] { return calls > before + 2; };
  ASSERT_EQ(write(writer, "d\ne", 3), 3);
  close(writer);
  ASSERT_TRUE(runUntil(loop, [&] { return logLines().size() == 2; }));
  runBriefly();
  EXPECT_TRUE(source.isCompleted());
  EXPECT_THAT(events, ElementsAre("a\n", "b\n", "c\n", "d\n"));
  EXPECT_THAT(logLines(), ElementsAre(logLine("INFO", "Stream at " + fifo + " has ended."),
                                      logLine("ERROR", "Could not read from file " + fifo +
                                                           ": Bad file descriptor")));
}

}  // namespace
