#include "support/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/test_helpers.h"

namespace {

using ::testing::Each;
using ::testing::MatchesRegex;

TEST(LogLine, AttributesNewestFirstWithLevelInFront) {
  std::ostringstream out;
  const Log log = Log(out).with("application", "drover_main").with("version", "2024-01-31-0a1b2c3-abcdefgh");
  info(log) << "Reopening log file." << std::endl;
  EXPECT_EQ(out.str(),
            "{\"level\":\"INFO\", \"version\":\"2024-01-31-0a1b2c3-abcdefgh\", "
            "\"application\":\"drover_main\", \"message\": \"Reopening log file.\"}\n");
}

TEST(LogLine, YoungerKeyHidesOlderAtTheYoungerPlace) {
  std::ostringstream out;
  const Log log = Log(out).with("a", "1").with("b", "x").with("a", "2");
  error(log) << "m" << std::endl;
  EXPECT_EQ(out.str(), "{\"level\":\"ERROR\", \"a\":\"2\", \"b\":\"x\", \"message\": \"m\"}\n");
}

TEST(LogLine, EmptyKeyLeftOutEmptyValueKept) {
  std::ostringstream out;
  const Log log = Log(out).with("", "hidden").with("k", "");
  info(log) << "m" << std::endl;
  EXPECT_EQ(out.str(), "{\"level\":\"INFO\", \"k\":\"\", \"message\": \"m\"}\n");
}

TEST(LogLine, EveryMessageStartsFresh) {
  // The thread's message slot is reused: nothing of one message may leak into the next.
  std::ostringstream out;
  const Log log(out);
  info(log) << std::hex << std::setw(6) << std::setfill('0') << 255 << std::endl;
  info(log) << 255 << " " << 1.5 << std::endl;
  info(log) << "abandoned half";
  error(log) << "whole" << std::endl;
  EXPECT_EQ(out.str(),
            "{\"level\":\"INFO\", \"message\": \"0000ff\"}\n"
            "{\"level\":\"INFO\", \"message\": \"255 1.5\"}\n"
            "{\"level\":\"ERROR\", \"message\": \"whole\"}\n");
}

TEST(LogLine, BareLogAndEmptyMessage) {
  std::ostringstream out;
  Log log(out);
  log << "text" << std::endl;
  log << std::endl;
  EXPECT_EQ(out.str(), "{\"message\": \"text\"}\n{\"message\": \"\"}\n");
}

TEST(LogLine, NewlinesInsideMessageStayOnOneLine) {
  std::ostringstream out;
  Log log(out);
  log << "a\nb" << std::endl;
  log << "c\n" << std::endl;  // ends in two newlines: only the last is dropped
  EXPECT_EQ(out.str(), "{\"message\": \"a\\u000Ab\"}\n{\"message\": \"c\\u000A\"}\n");
}

TEST(LogLine, CountersAddedAfterLevelStandBeforeIt) {
  std::ostringstream out;
  const Log base = Log(out).with("application", "forward");
  Log counters = base.with("level", "INFO").with("eventsForwarded", uint64_t{12}).with("bufferFull", uint64_t{0});
  counters << std::endl;
  EXPECT_EQ(out.str(),
            "{\"bufferFull\":\"0\", \"eventsForwarded\":\"12\", \"level\":\"INFO\", "
            "\"application\":\"forward\", \"message\": \"\"}\n");
}

TEST(LogLine, CopyStartsWithoutTheOriginalsPartialMessage) {
  std::ostringstream out;
  Log original(out);
  original << "half";
  Log copy(original);
  copy << "whole" << std::endl;
  original << " done" << std::endl;
  EXPECT_EQ(out.str(), "{\"message\": \"whole\"}\n{\"message\": \"half done\"}\n");
}

struct EscapeCase {
  std::string input;
  std::string expected;
};

class LogEscaping : public ::testing::TestWithParam<EscapeCase> {};

TEST_P(LogEscaping, KeysValuesAndMessagesEscapeAlike) {
  const EscapeCase& c = GetParam();
  EXPECT_EQ(escapeJson(c.input), c.expected);
  std::ostringstream out;
  Log(out).with(c.input, c.input) << c.input << "\n" << std::flush;
  EXPECT_EQ(out.str(), "{\"" + c.expected + "\":\"" + c.expected + "\", \"message\": \"" +
                           c.expected + "\"}\n");
}

INSTANTIATE_TEST_SUITE_P(
    ByteClasses, LogEscaping,
    ::testing::Values(EscapeCase{std::string("\0", 1), "\\u0000"}, EscapeCase{"\t", "\\u0009"},
                      EscapeCase{"\n", "\\u000A"}, EscapeCase{"\x1f", "\\u001F"},
                      EscapeCase{"\x1b[0m", "\\u001B[0m"}, EscapeCase{"\"", "\\\""},
                      EscapeCase{"\\", "\\\\"}, EscapeCase{"\x7f", "\x7f"},
                      EscapeCase{"\x80\xff", "\x80\xff"}, EscapeCase{"/ <>&'", "/ <>&'"},
                      EscapeCase{"caf\xc3\xa9", "caf\xc3\xa9"}));

TEST(LogEscapingTable, EveryControlByteGetsTheUppercaseSixCharacterForm) {
  for (int byte = 0; byte < 0x20; ++byte) {
    char expected[7];
    snprintf(expected, sizeof expected, "\\u%04X", byte);
    EXPECT_EQ(escapeJson(std::string(1, static_cast<char>(byte))), expected) << byte;
  }
}

TEST(LogThreads, TwoThreadsWriteWholeLines) {
  std::ostringstream out;
  const Log log = Log(out).with("application", "test");
  auto writer = [&log](const std::string& word) {
    for (int i = 0; i < 2000; ++i) info(log) << word << " " << i << std::endl;
  };
  std::thread first(writer, "first");
  std::thread second(writer, "second");
  first.join();
  second.join();
  const std::vector<std::string> lines = splitLines(out.str());
  EXPECT_EQ(lines.size(), 4000u);
  EXPECT_THAT(lines, Each(MatchesRegex("\\{\"level\":\"INFO\", \"application\":\"test\", "
                                       "\"message\": \"(first|second) [0-9]+\"\\}")));
}

using LogDeathTest = ::testing::Test;

TEST(LogDeathTest, DerivingInTheMiddleOfAMessageAborts) {
  std::ostringstream out;
  Log log(out);
  log << "partial";
  EXPECT_DEATH(log.with("a", "b"), "formattingBuffer.str\\(\\).empty\\(\\)");
}

TEST(LogDeathTest, FlushWithoutAFinishedMessageAborts) {
  std::ostringstream out;
  Log idle(out);
  EXPECT_DEATH(idle << std::flush, "!str\\(\\).empty\\(\\) && str\\(\\).back\\(\\) == '\\\\n'");
  Log partial(out);
  partial << "no newline";
  EXPECT_DEATH(partial << std::flush, "str\\(\\).back\\(\\) == '\\\\n'");
}

}  // namespace
