// The two forms of a log event and the event sink. Plain data with no dependencies: sources/
// makes these, protocol/ sends them and app/ queues them, so they live below all three.
#pragma once

#include <cstddef>
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

/// Appends to `events` (a vector or deque) a LogEvent with its own copy of `event`'s bytes, made
/// where it lies: a temporary moved in would cost a fifth of the copy.
template <typename Events>
void keepEvent(Events& events, uint32_t context, uint64_t timestamp, const EphemeralLogEvent& event) {
  LogEvent& kept = events.emplace_back();
  kept.context = context;
  kept.timestamp = timestamp;
  kept.data.assign(reinterpret_cast<const char*>(event.begin),
                   static_cast<size_t>(event.end - event.begin));
}

/// Takes all `count` events (true) or none (false). All events of one call share context and time.
using EventSink = std::function<bool(uint32_t context, uint64_t timestamp,
                                     const EphemeralLogEvent* events, uint32_t count)>;
