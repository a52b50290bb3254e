// Event times taken from the text of a line instead of the clock. Public header: the command line
// builds extractors through makeTimeSource, the sources call timeOf once per line.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "support/log_event.h"

/// Gives each event a time in nanoseconds since the Unix epoch. Owned by its source; used on the
/// loop's thread only.
class TimestampExtractor {
 public:
  virtual ~TimestampExtractor() = default;
  /// The time of `e`, which holds the line's bytes without any prepended text.
  virtual uint64_t timeOf(const EphemeralLogEvent& e) = 0;
};

/// Takes the first ISO-8601-like date and time in a line, read as UTC. A line without a readable
/// time gets the time of the latest line that had one (at first: the moment of construction).
class FirstIsoExtractor : public TimestampExtractor {
 public:
  explicit FirstIsoExtractor(uint64_t initialTimestamp);
  uint64_t timeOf(const EphemeralLogEvent& e) override;

 private:
  uint64_t lastTimestamp;
};

/// The result of a `timestamps` word: an error text, or an extractor (null for "system").
struct TimeSource {
  std::string error;
  std::optional<std::unique_ptr<TimestampExtractor>> extractor;
};

/// "system" -> engaged null, "first-iso" -> a FirstIsoExtractor, anything else an error.
TimeSource makeTimeSource(const std::string& text);

/// Parses "YYYY-MM-DD[( |T)hh:mm:ss[(.|,)fraction]]" with an optional "Z" or "+hh:mm"/"-hh:mm"
/// suffix into nanoseconds since the epoch. No value for an empty range or unreadable text.
std::optional<uint64_t> parseIsoTime(const uint8_t* begin, const uint8_t* end);
