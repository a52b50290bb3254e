// The sink's event formatting and output: a large buffer that is handed to the kernel in large
// write(2) calls, never per line. Internal to sink/.
//
// One thread only: the output thread of SinkOutput. In the steady state appending allocates
// nothing.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "sink/sink_options.h"
#include "support/log.h"

/// A batch's events as they came on the wire: each a little-endian uint16 length, then that many
/// bytes. Queued this way, a batch is one copy of what the peer sent, however small its events.
struct WireEvents {
  const char* begin = nullptr;
  const char* end = nullptr;
  uint32_t count = 0;

  /// Calls visit(data, size) for each event, in order.
  template <typename Visit>
  void forEach(Visit visit) const {
    const char* at = begin;
    for (uint32_t i = 0; i < count; ++i) {
      uint16_t size;
      memcpy(&size, at, sizeof size);
      visit(at + sizeof size, static_cast<size_t>(size));
      at += sizeof size + size;
    }
  }
};

/// One batch as SinkOutput queues it for the JSON format.
struct QueuedBatch {
  std::string_view token;
  uint32_t context = 0;
  uint64_t timestamp = 0;
  uint64_t connection = 0;
  uint64_t batch = 0;
  WireEvents events;
};

class EventWriter {
 public:
  static constexpr size_t BUFFER_SIZE = 1 << 20;

  /// Writes to `fd`, which it closes at the end if `ownsDescriptor`. Does not flush on
  /// destruction: whoever ends the run flushes. With `receivedTime`, JSON lines carry the
  /// wall-clock time at which their batch was written here.
  EventWriter(const Log& log, int fd, bool ownsDescriptor, OutputFormat format,
              bool receivedTime = false);
  ~EventWriter();
  EventWriter(const EventWriter&) = delete;
  EventWriter& operator=(const EventWriter&) = delete;

  /// Appends one batch, each event as one JSON line. May flush first, when the buffer could not
  /// take the next event.
  void writeBatch(const QueuedBatch& batch);
  /// Flushes, then writes `size` bytes from `data` as they are: the raw format needs no copy.
  void writeBytes(const char* data, size_t size);
  /// Hands all buffered bytes to the kernel, waiting while a non-blocking output is full. On a
  /// write error it logs once, drops the data and discards everything from then on.
  void flush();
  bool hasFailed() const { return failed; }
  OutputFormat outputFormat() const { return format; }
  size_t buffered() const { return used; }

 private:
  void makeRoom(size_t needed);
  void append(const char* data, size_t size);
  void writeAll(const char* data, size_t size);

  Log log;
  int fd;
  bool ownsDescriptor;
  OutputFormat format;
  bool receivedTime;
  bool failed = false;
  // Filled in place, without the zeroing that growing a std::string would cost per event.
  std::unique_ptr<char[]> buffer;
  size_t used = 0;
  std::string prefix;  // the JSON fields that all events of a batch share
};
