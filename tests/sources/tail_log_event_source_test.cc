#include "sources/tail_log_event_source.h"

#include <cstdio>

#include "tests/sources/source_test_helpers.h"

namespace {

using namespace std::chrono_literals;

class TailReopen : public SourceFixture, public ::testing::WithParamInterface<bool> {};

// The tail starts at the end. A truncation is found by the five-second check and reopens at once;
// a moved file is drained through the open descriptor and the path reopened 30 s later. Either
// way the old file's partial last line joins the first line of the file read anew.
TEST_P(TailReopen, TheOldFileIsDrainedThenThePathReadFromItsStart) {
  const bool moved = GetParam();
  const std::string change = moved ? "moved" : "truncated";
  writeFile(path, "old\n");
  TailLogEventSource source(log, path, "token");
  configure(source);
  source.registerAt(loop);
  appendFile(path, "part");
  // Renaming a file to its own name does nothing.
  const std::string old = moved ? dir.file("app.log.1") : path;
  ASSERT_EQ(rename(path.c_str(), old.c_str()), 0);
  const auto changed = std::chrono::steady_clock::now();
  appendFile(old, "ial\nlast ");
  ASSERT_TRUE(runUntil(loop, [&] { return events.size() == 1; }));
  writeFile(path, "new\n");
  ASSERT_TRUE(runUntil(
      loop, [&] { return events.size() == 2; }, moved ? 40s : 7s));
  EXPECT_GE(std::chrono::steady_clock::now() - changed, moved ? 29s : 0s);
  ASSERT_TRUE(runUntil(loop, [&] { return logLines().size() == 3; }));
  EXPECT_THAT(events, ::testing::ElementsAre("partial\n", "last new\n"));
  // The reopen removes the old watch, whose IN_IGNORED the loop reports as unknown.
  EXPECT_THAT(
      logLines(),
      ::testing::ElementsAre(
          logLine("INFO", "Log file has been " + change + ". Will reopen."),
          logLine("INFO", "Reopening log file."),
          R"({"level":"ERROR", "component":"EventLoop", "message": "Received inotify event for unknown watcher."})"));
}

INSTANTIATE_TEST_SUITE_P(Truncated, TailReopen, ::testing::Values(false));
// Waits out the 30-second delay between a move and the reopen.
INSTANTIATE_TEST_SUITE_P(MovedSlow, TailReopen, ::testing::Values(true));

}  // namespace
