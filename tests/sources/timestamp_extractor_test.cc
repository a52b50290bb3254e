#include "sources/timestamp_extractor.h"

#include <gtest/gtest.h>

#include <string>

#include "loop/event_loop.h"

namespace {

constexpr uint64_t PREVIOUS = 42;
constexpr uint64_t SECOND = 1000000000ull;
constexpr uint64_t MAY_6 = 1714979289ull * SECOND;  // 2024-05-06 07:08:09 UTC

uint64_t timeOfLine(TimestampExtractor& extractor, const std::string& line) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(line.data());
  return extractor.timeOf(EphemeralLogEvent{bytes, bytes + line.size()});
}

TEST(FirstIsoExtractorLines, EachLineGetsItsFirstTimeOrThePreviousOne) {
  const std::pair<std::string, uint64_t> cases[] = {
      {"2024-05-06 07:08:09 text\n", MAY_6},
      {"2024-05-06T07:08:09 text\n", MAY_6},
      {"2024-05-06 07:08:09.5\n", MAY_6 + 500000000},
      {"2024-05-06 07:08:09,5\n", MAY_6 + 500000000},
      {"x 2024-05-06 07:08:09.123456789 y\n", MAY_6 + 123456789},
      {"x 2024-05-06 07:08:09.1234567891 y\n", MAY_6 + 123456789},
      {"2024-05-06 07:08:09+02:00 text\n", MAY_6},  // the zone isn't part of the candidate
      {"at 2024-05-06 07:08:09", MAY_6},            // ends right after the seconds
      {"12024-05-06 07:08:09\n", PREVIOUS},
      {"2024-13-45 07:08:09 then 2024-05-06 07:08:09\n", PREVIOUS},  // first candidate only
      {"2024-05-06 07:08:09.\n", PREVIOUS},
      {"2024-05-06\n", PREVIOUS},
      {"\n", PREVIOUS},
      {"", PREVIOUS},
  };
  for (const auto& [line, expected] : cases) {
    SCOPED_TRACE(line);
    FirstIsoExtractor extractor(PREVIOUS);
    EXPECT_EQ(timeOfLine(extractor, line), expected);
  }
  FirstIsoExtractor extractor(PREVIOUS);
  timeOfLine(extractor, "2024-05-06 07:08:09 sets the time\n");
  EXPECT_EQ(timeOfLine(extractor, "2024-13-45 07:08:09 keeps it\n"), MAY_6);
}

TEST(IsoTimeParser, ZonesFormatsAndFractions) {
  const std::pair<std::string, std::optional<uint64_t>> cases[] = {
      {"2024-05-06T07:08:09.25Z", MAY_6 + 250000000},
      {"2024-05-06T07:08:09+02:00", MAY_6 - 7200 * SECOND},
      {"2024-05-06 07:08:09-01:30", MAY_6 + 5400 * SECOND},
      {"2024-05-06", 1714953600ull * SECOND},
      {"2024-05-06 07:08:09.1234567890", std::nullopt},
      {"2024-05-06 07:08:09.5x", std::nullopt},
      {"1969-12-31 23:59:59", ~0ull - SECOND + 1},  // wraps around instead of failing
      {"1970-01-01 00:00:00+00:01", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    EXPECT_EQ(parseIsoTime(bytes, bytes + text.size()), expected);
  }
}

TEST(TimeSourceFactory, NamesAreMatchedExactly) {
  const TimeSource system = makeTimeSource("system");
  ASSERT_TRUE(system.extractor.has_value());
  EXPECT_EQ(*system.extractor, nullptr);
  EXPECT_EQ(system.error, "");

  const uint64_t before = wallClockNanos();
  TimeSource firstIso = makeTimeSource("first-iso");
  ASSERT_TRUE(firstIso.extractor.has_value() && *firstIso.extractor);
  // Until a line has a time, lines get the moment the extractor was made.
  const uint64_t initial = timeOfLine(**firstIso.extractor, "\n");
  EXPECT_GE(initial, before);
  EXPECT_LE(initial, wallClockNanos());

  for (const std::string text : {"System", "first-iso ", ""}) {
    const TimeSource unknown = makeTimeSource(text);
    EXPECT_EQ(unknown.error, "Unknown timestamp source");
    EXPECT_FALSE(unknown.extractor.has_value());
  }
}

}  // namespace
