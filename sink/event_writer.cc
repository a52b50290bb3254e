#include "sink/event_writer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "loop/event_loop.h"
#include "sink/json_string.h"

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
      receivedTime(stampReceived),
      // An event is at most 65535 bytes and escaping takes up to six bytes for one, so the largest
      // takes about 400 KiB: a buffer of 1 MiB always has room for one after a flush.
      buffer(std::make_unique_for_overwrite<char[]>(BUFFER_SIZE)) {
  prefix.reserve(2048);
}

EventWriter::~EventWriter() {
  if (ownsDescriptor && close(fd) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not close the output: " << strerror(savedErrno) << std::endl;
  }
}

void EventWriter::makeRoom(size_t needed) {
  if (used + needed > BUFFER_SIZE) flush();
}

void EventWriter::append(const char* data, size_t size) {
  memcpy(buffer.get() + used, data, size);
  used += size;
}

void EventWriter::writeBatch(const QueuedBatch& batch) {
  if (failed) return;
  prefix.assign("{\"token\":\"");
  const size_t tokenAt = prefix.size();
  prefix.resize(tokenAt + JSON_STRING_EXPANSION * batch.token.size());
  char* const tokenEnd = writeJsonString(prefix.data() + tokenAt, batch.token.data(),
                                         batch.token.size());
  prefix.resize(static_cast<size_t>(tokenEnd - prefix.data()));
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
  batch.events.forEach([this](const char* event, size_t size) {
    makeRoom(prefix.size() + JSON_STRING_EXPANSION * size + sizeof EVENT_END);
    append(prefix.data(), prefix.size());
    used = static_cast<size_t>(writeJsonString(buffer.get() + used, event, size) - buffer.get());
    append(EVENT_END, sizeof EVENT_END - 1);
  });
}

void EventWriter::flush() {
  writeAll(buffer.get(), used);
  used = 0;
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
