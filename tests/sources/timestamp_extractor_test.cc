#include "sources/timestamp_extractor.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "loop/event_loop.h"
#include "tests/support/test_helpers.h"

namespace {

constexpr uint64_t PREVIOUS = 42;
constexpr uint64_t SECOND = 1000000000ull;
constexpr uint64_t MAY_6 = 1714979289ull * SECOND;  // 2024-05-06 07:08:09 UTC

uint64_t timeOfLine(TimestampExtractor& extractor, const std::string& line) {
  return extractor.timeOf(eventOf(line));
}

// Lines go through an extractor, which keeps the previous time where a line has none; texts go
// straight to the parser, whose lack of a value reads as PREVIOUS here.
TEST(Timestamps, LinesGetTheirFirstTimeAndTextsParseWithZonesAndFractions) {
  const std::tuple<bool, std::string, uint64_t> cases[] = {
      {true, "2024-05-06 07:08:09 text\n", MAY_6},
      {true, "2024-05-06T07:08:09 text\n", MAY_6},
      {true, "2024-05-06 07:08:09.5\n", MAY_6 + 500000000},
      {true, "2024-05-06 07:08:09,5\n", MAY_6 + 500000000},
      {true, "x 2024-05-06 07:08:09.123456789 y\n", MAY_6 + 123456789},
      {true, "x 2024-05-06 07:08:09.1234567891 y\n", MAY_6 + 123456789},
      {true, "2024-05-06 07:08:09+02:00 text\n", MAY_6},  // the zone isn't part of the candidate
      {true, "at 2024-05-06 07:08:09", MAY_6},            // ends right after the seconds
      {true, "12024-05-06 07:08:09\n", PREVIOUS},
      {true, "2024-13-45 07:08:09 then 2024-05-06 07:08:09\n", PREVIOUS},  // first candidate only
      {true, "2024-05-06 07:08:09.\n", PREVIOUS},
      {true, "2024-05-06\n", PREVIOUS},
      {true, "", PREVIOUS},
      {false, "2024-05-06T07:08:09.25Z", MAY_6 + 250000000},
      {false, "2024-05-06T07:08:09+02:00", MAY_6 - 7200 * SECOND},
      {false, "2024-05-06 07:08:09-01:30", MAY_6 + 5400 * SECOND},
      {false, "2024-05-06", 1714953600ull * SECOND},
      {false, "2024-05-06 07:08:09.1234567890", PREVIOUS},
      {false, "2024-05-06 07:08:09.5x", PREVIOUS},
      {false, "1969-12-31 23:59:59", ~0ull - SECOND + 1},  // wraps around instead of failing
      {false, "1970-01-01 00:00:00+00:01", PREVIOUS},
      {false, "", PREVIOUS},
  };
  for (const auto& [line, text, expected] : cases) {
    FirstIsoExtractor extractor(PREVIOUS);
    const auto parsed = parseIsoTime(eventOf(text).begin, eventOf(text).end);
    EXPECT_EQ(line ? timeOfLine(extractor, text) : parsed.value_or(PREVIOUS), expected) << text;
  }
  FirstIsoExtractor extractor(PREVIOUS);
  timeOfLine(extractor, "2024-05-06 07:08:09 sets the time\n");
  EXPECT_EQ(timeOfLine(extractor, "2024-13-45 07:08:09 keeps it\n"), MAY_6);
}

TEST(TimeSourceFactory, NamesAreMatchedExactly) {
  const TimeSource system = makeTimeSource("system");
  EXPECT_TRUE(system.error.empty() && system.extractor.has_value() && !*system.extractor);
  const uint64_t before = wallClockNanos();
  TimeSource firstIso = makeTimeSource("first-iso");
  ASSERT_TRUE(firstIso.extractor.has_value() && *firstIso.extractor);
  // Until a line has a time, lines get the moment the extractor was made.
  const uint64_t initial = timeOfLine(**firstIso.extractor, "\n");
  EXPECT_TRUE(before <= initial && initial <= wallClockNanos());
  for (const TimeSource& unknown : {makeTimeSource("first-iso "), makeTimeSource("")})
    EXPECT_TRUE(unknown.error == "Unknown timestamp source" && !unknown.extractor.has_value());
}

}  // namespace
