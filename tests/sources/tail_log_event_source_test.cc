#include "sources/tail_log_event_source.h"

#include <gmock/gmock.h>

#include <cstdio>

#include "tests/sources/source_test_helpers.h"

namespace {

using ::testing::ElementsAre;

class TailSource : public SourceFixture {
 protected:
  std::unique_ptr<TailLogEventSource> startTail() {
    auto source = std::make_unique<TailLogEventSource>(log, path, "token");
    configure(*source);
    source->registerAt(loop);
    return source;
  }

  const std::string path = dir.file("app.log");
  const std::string reopening = logLine("INFO", "Reopening log file.");
  // The IN_IGNORED of the watch removed by a reopen.
  const std::string unknownWatcher =
      logLine("ERROR", "Received inotify event for unknown watcher.", "EventLoop");
};

TEST_F(TailSource, StartsAtTheEnd) {
  writeFile(path, "old\n");
  auto source = startTail();
  appendFile(path, "new\n");
  ASSERT_TRUE(runUntil(loop, [&] { return sunk.events.size() == 1; }));
  EXPECT_THAT(sunk.events, ElementsAre("new\n"));
  EXPECT_EQ(out.str(), "");
}

TEST_F(TailSource, ATruncationIsFoundWithinFiveSecondsAndTheFileReadAnew) {
  writeFile(path, "");
  auto source = startTail();
  appendFile(path, "a longer first line\n");
  ASSERT_TRUE(runUntil(loop, [&] { return sunk.events.size() == 1; }));
  writeFile(path, "short\n");
  ASSERT_TRUE(runUntil(
      loop, [&] { return sunk.events.size() == 2; }, std::chrono::seconds(7)));
  ASSERT_TRUE(runUntil(loop, [&] { return logLines().size() == 3; }));
  EXPECT_THAT(sunk.events, ElementsAre("a longer first line\n", "short\n"));
  EXPECT_THAT(logLines(), ElementsAre(logLine("INFO", "Log file has been truncated. Will reopen."),
                                      reopening, unknownWatcher));
}

// Waits out the 30-second delay between a move and the reopen.
class TailRotationSlow : public TailSource {};

TEST_F(TailRotationSlow, AMovedFileIsDrainedThenThePathReopenedThirtySecondsLater) {
  writeFile(path, "");
  auto source = startTail();
  appendFile(path, "part");
  const std::string moved = dir.file("app.log.1");
  ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0);
  const auto movedAt = std::chrono::steady_clock::now();
  appendFile(moved, "ial\nold\n");
  ASSERT_TRUE(runUntil(loop, [&] { return sunk.events.size() == 2; }));
  // A partial line of the old file joins the first line of the new one.
  appendFile(moved, "last ");
  writeFile(path, "new\n");

  ASSERT_TRUE(runUntil(
      loop, [&] { return sunk.events.size() == 3; }, std::chrono::seconds(40)));
  EXPECT_GE(std::chrono::steady_clock::now() - movedAt, std::chrono::seconds(29));
  ASSERT_TRUE(runUntil(loop, [&] { return logLines().size() == 3; }));
  EXPECT_THAT(sunk.events, ElementsAre("partial\n", "old\n", "last new\n"));
  EXPECT_THAT(logLines(), ElementsAre(logLine("INFO", "Log file has been moved. Will reopen."),
                                      reopening, unknownWatcher));
}

}  // namespace
