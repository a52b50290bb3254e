#include "sink/event_writer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "loop/event_loop.h"

namespace {

void appendNumber(std::string& out, uint64_t value) {
  char digits[20];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

constexpr char EVENT_END[] = "\"}\n";

}  // namespace

EventWriter::EventWriter(const Log& parent, int descriptor, bool owns, OutputFormat outputFormat,
                         bool stampReceived)
    : log(parent.with("component", "EventWriter")),
      fd(descriptor),
      ownsDescriptor(owns),
      format(outputFormat),
      receivedTime(stampReceived) {
  // Escaping asks for six bytes per input byte before it shrinks back, so the largest event takes
  // about 400 KiB of room: a buffer of 1 MiB always has room for one after a flush.
  buffer.reserve(BUFFER_SIZE);
  prefix.reserve(2048);
}

EventWriter::~EventWriter() {
  if (ownsDescriptor && close(fd) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not close the output: " << strerror(savedErrno) << std::endl;
  }
}

void EventWriter::makeRoom(size_t needed) {
  if (buffer.size() + needed > buffer.capacity()) flush();
}

void EventWriter::writeBatch(const QueuedBatch& batch) {
  if (failed) return;
  const char* event = batch.bytes;
  auto nextSize = [&batch](uint32_t i) {
    uint32_t size;
    memcpy(&size, batch.sizes + i * sizeof size, sizeof size);
    return static_cast<size_t>(size);
  };
  if (format == OutputFormat::RAW) {
    for (uint32_t i = 0; i < batch.count; ++i) {
      const size_t size = nextSize(i);
      makeRoom(size);
      buffer.append(event, size);
      event += size;
    }
    return;
  }

  prefix.assign("{\"token\":\"");
  appendEscapedJson(prefix, batch.token.data(), batch.token.size());
  prefix.append("\",\"context\":");
  appendNumber(prefix, batch.context);
  prefix.append(",\"timestamp\":");
  appendNumber(prefix, batch.timestamp);
  prefix.append(",\"connection\":");
  appendNumber(prefix, batch.connection);
  prefix.append(",\"batch\":");
  appendNumber(prefix, batch.batch);
  if (receivedTime) {
    // Wall clock, as the agent stamps its events: the difference is the delivery delay.
    prefix.append(",\"received\":");
    appendNumber(prefix, wallClockNanos());
  }
  prefix.append(",\"event\":\"");
  for (uint32_t i = 0; i < batch.count; ++i) {
    const size_t size = nextSize(i);
    makeRoom(prefix.size() + 6 * size + sizeof EVENT_END);
    buffer.append(prefix);
    appendEscapedJson(buffer, event, size);
    buffer.append(EVENT_END, sizeof EVENT_END - 1);
    event += size;
  }
}

void EventWriter::flush() {
  writeAll(buffer.data(), buffer.size());
  buffer.clear();
}

void EventWriter::writeBytes(const char* data, size_t size) {
  flush();
  writeAll(data, size);
}

void EventWriter::writeAll(const char* data, size_t size) {
  size_t written = 0;
  while (!failed && written < size) {
    const ssize_t ret = write(fd, data + written, size - written);
    if (ret > 0) {
      written += static_cast<size_t>(ret);
      continue;
    }
    const int savedErrno = errno;
    if (ret == -1 && savedErrno == EINTR) continue;
    if (ret == -1 && savedErrno == EAGAIN) {
      // An output that was handed to us non-blocking: wait for it rather than lose events.
      pollfd waitFor{fd, POLLOUT, 0};
      poll(&waitFor, 1, -1);
      continue;
    }
    error(log) << "Could not write events: " << strerror(ret == 0 ? EIO : savedErrno) << std::endl;
    failed = true;
  }
}
