// The two forms of a log event and the event sink. Plain data with no dependencies: sources/
// makes these, protocol/ sends them and app/ queues them, so they live below all three.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// Upper bound of a whole event as sent: prepended text plus line, plus 8 timestamp bytes.
constexpr uint32_t MAXIMUM_EVENT_LENGTH = 65536;

/// A view of one event's bytes, newline included. Valid only during the sink call receiving it.
struct EphemeralLogEvent {
  const uint8_t* begin;
  const uint8_t* end;
};

/// An event that has to outlive the sink call: its own copy of the bytes.
struct LogEvent {
  uint32_t context;
  uint64_t timestamp;
  std::string data;
};

/// Takes all `count` events (true) or none (false). All events of one call share context and time.
using EventSink = std::function<bool(uint32_t context, uint64_t timestamp,
                                     const EphemeralLogEvent* events, uint32_t count)>;
