#include "sources/tail_log_event_source.h"

#include <cstdio>

#include "tests/sources/source_test_helpers.h"

namespace {

using namespace std::chrono_literals;

struct Reopen {
  bool move;  // else truncate
  std::string notice;
  std::chrono::seconds earliest, limit;
};

class TailReopen : public SourceFixture, public ::testing::WithParamInterface<Reopen> {};

// The tail starts at the end. A truncation is found by the five-second check and reopens at once;
// a moved file is drained through the open descriptor and the path reopened 30 s later. Either
// way the old file's partial last line joins the first line of the file read anew.
TEST_P(TailReopen, TheOldFileIsDrainedThenThePathReadFromItsStart) {
  writeFile(path, "old\n");
  TailLogEventSource source(log, path, "token");
  configure(source);
  source.registerAt(loop);
  appendFile(path, "part");
  // Renaming a file to its own name does nothing.
  const std::string old = GetParam().move ? dir.file("app.log.1") : path;
  ASSERT_EQ(rename(path.c_str(), old.c_str()), 0);
  const auto changed = std::chrono::steady_clock::now();
  appendFile(old, "ial\nlast ");
  ASSERT_TRUE(runUntil(loop, [&] { return events.size() == 1; }));
  writeFile(path, "new\n");
  ASSERT_TRUE(runUntil(
      loop, [&] { return events.size() == 2; }, GetParam().limit));
  EXPECT_GE(std::chrono::steady_clock::now() - changed, GetParam().earliest);
  ASSERT_TRUE(runUntil(loop, [&] { return logLines().size() == 3; }));
  EXPECT_THAT(events, ::testing::ElementsAre("partial\n", "last new\n"));
  // The reopen removes the old watch, whose IN_IGNORED the loop reports as unknown.
  EXPECT_THAT(
      logLines(),
      ::testing::ElementsAre(
          logLine("INFO", GetParam().notice), logLine("INFO", "Reopening log file."),
          R"({"level":"ERROR", "component":"EventLoop", "message": "Received inotify event for unknown watcher."})"));
}

INSTANTIATE_TEST_SUITE_P(Truncated, TailReopen,
                         ::testing::Values(Reopen{
                             false, "Log file has been truncated. Will reopen.", 0s, 7s}));
// Waits out the 30-second delay between a move and the reopen.
INSTANTIATE_TEST_SUITE_P(MovedSlow, TailReopen,
                         ::testing::Values(Reopen{true, "Log file has been moved. Will reopen.",
                                                  29s, 40s}));

}  // namespace
