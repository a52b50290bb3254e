#include "support/exit_orderly.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <sstream>

namespace {

TEST(ExitOrderlyDeathTest, HandlerWithoutInstalledLogAborts) {
  // A fresh process, so no earlier test has installed a log.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(handleSignalExit(SIGINT), "exitOrderlyLog");
}

TEST(ExitOrderlyDeathTest, FirstSignalSchedulesSecondExitsWithZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static const Log log(std::cerr);
        ASSERT_TRUE(installExitHandlers(log));
        raise(SIGTERM);
        if (keepRunning || !shouldKeepRunning()) {
          std::cerr << "first signal cleared the flag" << std::endl;
        }
        raise(SIGINT);
        std::cerr << "still alive" << std::endl;
        _exit(3);
      },
      ::testing::ExitedWithCode(0),
      "\"level\":\"INFO\", \"message\": \"Scheduling orderly exit.\"\\}\n"
      "first signal cleared the flag\n"
      "\\{\"level\":\"INFO\", \"message\": \"Exiting immediately.\"\\}");
}

TEST(ExitOrderly, SigpipeIsIgnoredAfterInstalling) {
  static const Log log(std::cout);
  ASSERT_TRUE(installExitHandlers(log));
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  // Without the disposition this write would end the test process.
  EXPECT_EQ(write(fds[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  close(fds[1]);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
}

}  // namespace
