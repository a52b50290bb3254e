#include "sources/file_log_event_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

// Leaves room for the prepend and the 8 time stamp bytes of a longest event on the wire:
// (65526 - prepend + 1 spare byte) + prepend + 8 = 65535 < MAXIMUM_EVENT_LENGTH.
constexpr uint64_t BUFFER_CAPACITY = 65526;
// Sixteen full buffers per call keep one busy source from holding the loop thread.
constexpr int64_t READ_SLICE = 16 * BUFFER_CAPACITY;
// Below this much free space the buffer is compacted, or an overlong line is split.
constexpr uint64_t MINIMUM_READ = 512;
constexpr uint32_t BATCH_SIZE = 256;
constexpr uint64_t RETRY_DELAY = 1000000000;

}  // namespace

FileLogEventSource::FileLogEventSource(const Log& baseLog, const std::string& path,
                                       const std::string& writeToken)
    : LogEventSource(baseLog, writeToken), filename(path), retryConsume([this] {
        consume();
        return true;
      }) {
  fd = open(filename.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd == -1) {
    const int savedErrno = errno;
    error(log) << "Could not open " << filename << ": " << strerror(savedErrno) << std::endl;
  }
}

FileLogEventSource::~FileLogEventSource() = default;

bool FileLogEventSource::isAvailable() const {
  return fd != -1;
}

void FileLogEventSource::registerContext() {
  configuration.context = ingestContextsMap->registerContext(configuration);
}

bool FileLogEventSource::handleEvent(const uint8_t* begin, const uint8_t* end) {
  const uint64_t timestamp = timestampExtractor
                                 ? timestampExtractor->timeOf(EphemeralLogEvent{begin, end})
                                 : wallClockNanos();
  EphemeralLogEvent event{begin, end};
  uint8_t withPrepend[MAXIMUM_EVENT_LENGTH];
  if (!prepend.empty()) {
    assert(prepend.size() + (end - begin) <= MAXIMUM_EVENT_LENGTH);
    memcpy(withPrepend, prepend.data(), prepend.size());
    memcpy(withPrepend + prepend.size(), begin, static_cast<size_t>(end - begin));
    event = EphemeralLogEvent{withPrepend, withPrepend + prepend.size() + (end - begin)};
  }
  if (eventCallback(configuration.context, timestamp, &event, 1)) {
    eventBegin = const_cast<uint8_t*>(end);
    return true;
  }
  // The key is fixed, so a retry already pending is neither doubled nor postponed. A stream
  // that has ended has left its loop; its remaining bytes can't become lines anyway.
  if (loop) loop->addTimeout(RETRY_DELAY, &retryConsume, retryConsume);
  return false;
}

bool FileLogEventSource::handleEvents(EphemeralLogEvent* events, uint32_t count) {
  assert(count > 0);
  if (timestampExtractor || !prepend.empty()) {
    // Each event is its own sink call; eventBegin follows every accepted one, so a refusal in
    // the middle sends nothing twice.
    for (uint32_t i = 0; i < count; ++i) {
      if (!handleEvent(events[i].begin, events[i].end)) return false;
    }
    return true;
  }
  if (!eventCallback(configuration.context, wallClockNanos(), events, count)) return false;
  eventBegin = const_cast<uint8_t*>(events[count - 1].end);
  return true;
}

void FileLogEventSource::consume() {
  if (!buffer) {
    // Sized here, not in the constructor: the prepend may change until registerAt.
    bufferSize = BUFFER_CAPACITY - prepend.size();
    buffer = std::make_unique<uint8_t[]>(bufferSize + 1);
    eventBegin = bufferEnd = buffer.get();
  }
  int64_t budget = READ_SLICE;
  for (;;) {
    // Lines left behind by a refusal go first, one by one.
    for (uint8_t* scan = eventBegin; scan < bufferEnd;) {
      auto* newline =
          static_cast<uint8_t*>(memchr(scan, '\n', static_cast<size_t>(bufferEnd - scan)));
      if (!newline) break;
      scan = newline + 1;
      if (!handleEvent(eventBegin, scan)) return;
    }

    uint64_t bufferSpace = static_cast<uint64_t>(buffer.get() + bufferSize - bufferEnd);
    if (bufferSpace < MINIMUM_READ) {
      if (eventBegin != buffer.get()) {
        const size_t kept = static_cast<size_t>(bufferEnd - eventBegin);
        memmove(buffer.get(), eventBegin, kept);
        eventBegin = buffer.get();
        bufferEnd = buffer.get() + kept;
      } else {
        // The newline goes to the spare byte while the event ends one past bufferEnd: the same
        // place when the buffer is full to the brim, otherwise the event ends in a stale byte.
        error(log) << "Overly long line in " << filename << ". Splitting forcibly!" << std::endl;
        buffer[bufferSize] = '\n';
        if (!handleEvent(eventBegin, bufferEnd + 1)) return;
        eventBegin = bufferEnd = buffer.get();
      }
      bufferSpace = static_cast<uint64_t>(buffer.get() + bufferSize - bufferEnd);
      assert(bufferSpace > 0);
    }

    const int result = static_cast<int>(read(fd, bufferEnd, bufferSpace));
    if (result < 1) {
      const int savedErrno = errno;
      handleReadFailure(result, savedErrno);
      return;
    }
    bufferEnd += result;
    const auto start = std::chrono::steady_clock::now();

    // The walk starts at eventBegin, so the partial line of the previous read is searched again.
    EphemeralLogEvent events[BATCH_SIZE];
    uint32_t count = 0;
    uint64_t total = 0;
    const uint8_t* lineBegin = eventBegin;
    while (const void* found =
               memchr(lineBegin, '\n', static_cast<size_t>(bufferEnd - lineBegin))) {
      const uint8_t* lineEnd = static_cast<const uint8_t*>(found) + 1;
      events[count++] = EphemeralLogEvent{lineBegin, lineEnd};
      lineBegin = lineEnd;
      if (count == BATCH_SIZE) {
        total += BATCH_SIZE;
        if (!handleEvents(events, BATCH_SIZE)) return;
        count = 0;
      }
    }
    if (count > 0) {
      total += count;
      // A refusal here surfaces at the top of the next pass, where handleEvent arms the retry.
      handleEvents(events, count);
    }

    const uint64_t elapsed =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count());
    if (total > 10 && elapsed > 1) {
      info(log) << "Event coding speed: " << total * 1000000000 / elapsed << " events per s"
                << std::endl;
    }

    budget -= result;
    if (budget <= 0) {
      // The rest waits for the next wake-up; nothing is armed here.
      error(log) << "Read slice expired." << std::endl;
      return;
    }
  }
}
