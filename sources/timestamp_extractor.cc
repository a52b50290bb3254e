#include "sources/timestamp_extractor.h"

#include <cassert>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "loop/event_loop.h"

namespace {

// Read position by position: '0' a digit, 'T' a 'T' or blank, '.' a '.' or ',', others literally.
constexpr char PATTERN[] = "0000-00-00T00:00:00.000000000";
constexpr size_t PATTERN_LENGTH = sizeof(PATTERN) - 1;
// Date and time to the second; a longer match carries a fraction.
constexpr size_t SECONDS_END = 19;

bool matches(uint8_t byte, size_t patternPos) {
  // Past the pattern's end nothing matches, not even a zero byte.
  if (patternPos >= PATTERN_LENGTH) return false;
  switch (PATTERN[patternPos]) {
    case '0':
      return byte >= '0' && byte <= '9';
    case 'T':
      return byte == 'T' || byte == ' ';
    case '.':
      return byte == '.' || byte == ',';
    default:
      return byte == static_cast<uint8_t>(PATTERN[patternPos]);
  }
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Whether the stream was read to its end without a failure.
bool atEnd(std::istringstream& in) {
  return !in.fail() && (in.eof() || in.peek() == std::char_traits<char>::eof());
}

// A date and time, optionally followed by a separator and the fraction of a second.
bool readWithFraction(const std::string& work, const char* format, std::tm& tm,
                      std::string& fraction) {
  std::istringstream in(work);
  tm = std::tm{};
  fraction.clear();
  in >> std::get_time(&tm, format);
  if (in.fail()) return false;
  if (atEnd(in)) return true;
  const int next = in.peek();
  if (next != ',' && next != '.') return false;
  in.get();
  in >> fraction;
  return atEnd(in);
}

bool readExactly(const std::string& work, const char* format, std::tm& tm) {
  std::istringstream in(work);
  tm = std::tm{};
  in >> std::get_time(&tm, format);
  return atEnd(in);
}

std::optional<uint64_t> parseIsoText(const std::string& text) {
  std::string work = text;
  uint64_t offset = 0;
  bool positive = true;
  if (text.size() > 6) {
    const std::string zone = text.substr(text.size() - 6);
    if (text.back() == 'Z') {
      work.pop_back();
    } else if ((zone[0] == '+' || zone[0] == '-') && isDigit(zone[1]) && isDigit(zone[2]) &&
               zone[3] == ':' && isDigit(zone[4]) && isDigit(zone[5])) {
      work.resize(work.size() - 6);
      positive = zone[0] == '+';
      const uint64_t hours = static_cast<uint64_t>((zone[1] - '0') * 10 + (zone[2] - '0'));
      const uint64_t minutes = static_cast<uint64_t>((zone[4] - '0') * 10 + (zone[5] - '0'));
      offset = (hours * 60 + minutes) * 60000000000ull;
    }
  }

  std::tm tm{};
  std::string fraction;
  if (!readWithFraction(work, "%Y-%m-%d %H:%M:%S", tm, fraction) &&
      !readWithFraction(work, "%Y-%m-%dT%H:%M:%S", tm, fraction)) {
    fraction.clear();
    if (!readExactly(work, "%Y-%m-%dT%H:%M:%SZ", tm) && !readExactly(work, "%Y-%m-%d", tm)) {
      return std::nullopt;
    }
  }

  uint64_t nanoseconds = 0;
  if (!fraction.empty()) {
    if (fraction.size() > 9) return std::nullopt;
    for (const char c : fraction) {
      if (!isDigit(c)) return std::nullopt;
      nanoseconds = nanoseconds * 10 + static_cast<uint64_t>(c - '0');
    }
    for (size_t digits = fraction.size(); digits < 9; ++digits) nanoseconds *= 10;
  }

  // Dates before 1970 wrap around to huge values; they are taken as they come.
  const time_t t = timegm(&tm);
  const uint64_t total = static_cast<uint64_t>(t) * 1000000000ull + nanoseconds;
  if (positive) {
    if (total < offset) return std::nullopt;
    return total - offset;
  }
  if (total + offset < total) return std::nullopt;
  return total + offset;
}

}  // namespace

FirstIsoExtractor::FirstIsoExtractor(uint64_t initialTimestamp) : lastTimestamp(initialTimestamp) {}

uint64_t FirstIsoExtractor::timeOf(const EphemeralLogEvent& e) {
  if (e.begin >= e.end) return lastTimestamp;
  const uint8_t* i = e.begin;
  size_t patternPos = 0;
  // One pass, no backtracking: after a failed partial match the same byte starts a new one.
  while (i < e.end) {
    if (matches(*i, patternPos)) {
      ++i;
      ++patternPos;
    } else if (patternPos >= SECONDS_END) {
      break;
    } else if (patternPos == 0) {
      ++i;
    } else {
      patternPos = 0;
    }
  }
  // A line may end one digit short of whole seconds and still count; the parser judges it.
  if (i == e.end && patternPos < SECONDS_END - 1) return lastTimestamp;

  assert(i - patternPos >= e.begin);
  // Only the first candidate counts, readable or not.
  if (const auto time = parseIsoTime(i - patternPos, i)) lastTimestamp = *time;
  return lastTimestamp;
}

TimeSource makeTimeSource(const std::string& text) {
  TimeSource source;
  if (text == "system") {
    source.extractor.emplace(nullptr);
  } else if (text == "first-iso") {
    source.extractor.emplace(std::make_unique<FirstIsoExtractor>(wallClockNanos()));
  } else {
    source.error = "Unknown timestamp source";
  }
  return source;
}

std::optional<uint64_t> parseIsoTime(const uint8_t* begin, const uint8_t* end) {
  if (begin >= end) return std::nullopt;
  return parseIsoText(
      std::string(reinterpret_cast<const char*>(begin), reinterpret_cast<const char*>(end)));
}
