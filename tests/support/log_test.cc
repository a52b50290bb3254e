#include "support/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>

#include "tests/support/test_helpers.h"

namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

// Written to a file, whose stream buffer would hold back a line that isn't flushed.
TEST(LogLine, AttributesMessagesAndTheReusedSlot) {
  TempDir dir;
  std::ofstream out(dir.file("log"));
  const Log log(out);
  // Newest first, level in front; a younger key hides an older one at the younger place; an empty
  // key is left out, an empty value kept.
  error(log.with("a", "1").with("", "hidden").with("k", "").with("b", "x").with("a", "2"))
      << "m" << std::endl;
  // Attributes added after the level stand before it; numbers print in plain decimal.
  log.with("application", "forward").with("level", "INFO").with("n", uint64_t{12}) << std::endl;
  // Newlines inside a message are escaped, only the last one is dropped.
  Log bare(out);
  bare << "a\nb" << std::endl;
  bare << "c\n" << std::endl;
  // A copy starts without the original's partial message.
  bare << "half";
  Log(bare) << "whole" << std::endl;
  bare << " done" << std::endl;
  // The thread's message slot is reused: no text, format or stream state may leak.
  info(log) << std::hex << std::setfill('0') << std::setw(6) << 255 << " " << std::setprecision(2)
            << 3.14159 << std::setw(9) << std::endl;
  info(log) << 255 << " " << 3.14159 << " " << std::setw(3) << 7 << std::endl;
  info(log) << "abandoned half" << static_cast<const char*>(nullptr);
  info(log) << "whole" << std::endl;
  EXPECT_EQ(readFile(dir.file("log")),
            R"({"level":"ERROR", "a":"2", "b":"x", "k":"", "message": "m"}
{"n":"12", "level":"INFO", "application":"forward", "message": ""}
{"message": "a\u000Ab"}
{"message": "c\u000A"}
{"message": "whole"}
{"message": "half done"}
{"level":"INFO", "message": "0000ff 3.1"}
{"level":"INFO", "message": "255 3.14159   7"}
{"level":"INFO", "message": "whole"}
)");
}

TEST(LogLine, KeysValuesAndMessagesEscapeAlike) {
  // Control bytes in the six-character form, quote and backslash escaped, all else as it is.
  std::string input = "\x7f\x80\xff/ <>&'caf\xc3\xa9\"\\\x1b[0m";
  std::string expected = "\x7f\x80\xff/ <>&'caf\xc3\xa9\\\"\\\\\\u001B[0m";
  for (int byte = 0; byte < 0x20; ++byte) {
    char escaped[7];
    snprintf(escaped, sizeof escaped, "\\u%04X", byte);
    input += static_cast<char>(byte);
    expected += escaped;
  }
  EXPECT_EQ(escapeJson(input), expected);
  std::ostringstream out;
  Log(out).with(input, input) << input << "\n" << std::flush;
  EXPECT_EQ(out.str(),
            "{\"" + expected + "\":\"" + expected + "\", \"message\": \"" + expected + "\"}\n");
}

TEST(LogLine, TwoThreadsWriteWholeLines) {
  std::ostringstream out;
  const Log log = Log(out).with("application", "test");
  auto writer = [&log](const char* word) {
    for (int i = 0; i < 2000; ++i) info(log) << word << " " << i << std::endl;
  };
  { std::jthread first(writer, "first"), second(writer, "second"); }
  EXPECT_THAT(splitLines(out.str()),
              AllOf(SizeIs(4000), Each(MatchesRegex(R"(\{"level":"INFO", "application":"test", )"
                                                    R"("message": "(first|second) [0-9]+"\})"))));
}

TEST(LogDeathTest, DerivingOrFlushingInTheMiddleOfAMessageAborts) {
  std::ostringstream out;
  Log idle(out), partial(out);
  partial << "partial";
  EXPECT_DEATH(partial.with("a", "b"), R"(formattingBuffer\.str\(\)\.empty\(\))");
  EXPECT_DEATH(idle << std::flush, R"(!str\(\)\.empty\(\) && str\(\)\.back\(\) == '\\n')");
  EXPECT_DEATH(partial << std::flush, R"(str\(\)\.back\(\) == '\\n')");
}

}  // namespace
