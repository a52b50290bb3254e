#include "support/exit_orderly.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>

namespace {

TEST(ExitOrderlyDeathTest, WithoutALogAbortsOtherwiseTheSecondSignalExitsWithZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Each death test runs in a fresh process, where no log is installed yet.
  EXPECT_DEATH(handleSignalExit(SIGINT), "exitOrderlyLog");
  EXPECT_EXIT(
      {
        static const Log log(std::cerr);
        if (!installExitHandlers(log)) _exit(2);
        int fds[2];
        if (pipe(fds) != 0) _exit(2);
        close(fds[0]);
        // Without SIGPIPE ignored this write would end the process.
        if (write(fds[1], "x", 1) == -1 && errno == EPIPE) std::cerr << "EPIPE" << std::endl;
        raise(SIGTERM);
        if (!keepRunning && !shouldKeepRunning()) std::cerr << "flag cleared" << std::endl;
        raise(SIGINT);
        _exit(3);
      },
      ::testing::ExitedWithCode(0),
      "EPIPE\n\\{\"level\":\"INFO\", \"message\": \"Scheduling orderly exit.\"\\}\n"
      "flag cleared\n\\{\"level\":\"INFO\", \"message\": \"Exiting immediately.\"\\}");
}

}  // namespace
