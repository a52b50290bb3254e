// The sink's event formatting and output: a large buffer that is handed to the kernel in large
// write(2) calls, never per line. Internal to sink/.
//
// One thread only: the output thread of SinkOutput. In the steady state appending allocates
// nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sink/sink_options.h"
#include "support/log.h"

/// One batch as SinkOutput queues it: the events' sizes and bytes lie back to back in the queue.
struct QueuedBatch {
  std::string_view token;
  uint32_t context = 0;
  uint64_t timestamp = 0;
  uint64_t connection = 0;
  uint64_t batch = 0;
  uint32_t count = 0;
  const char* sizes = nullptr;  // `count` uint32_t, unaligned
  const char* bytes = nullptr;  // the events, one after the other
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

  /// Appends one batch, each event as one JSON line or as its bare bytes. May flush first, when
  /// the buffer could not take the next event.
  void writeBatch(const QueuedBatch& batch);
  /// Flushes, then writes `size` bytes from `data` as they are: the raw format needs no copy.
  void writeBytes(const char* data, size_t size);
  /// Hands all buffered bytes to the kernel, waiting while a non-blocking output is full. On a
  /// write error it logs once, drops the data and discards everything from then on.
  void flush();
  bool hasFailed() const { return failed; }
  OutputFormat outputFormat() const { return format; }
  size_t buffered() const { return buffer.size(); }

 private:
  void makeRoom(size_t needed);
  void writeAll(const char* data, size_t size);

  Log log;
  int fd;
  bool ownsDescriptor;
  OutputFormat format;
  bool receivedTime;
  bool failed = false;
  std::string buffer;
  std::string prefix;  // the JSON fields that all events of a batch share
};
