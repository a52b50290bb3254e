// The common core of the tail and stream sources: opening a file, reading it without blocking
// into one private buffer, cutting lines and handing them to the sink. Internal to sources/.
//
// Buffer layout (the extra byte past the capacity serves the forced split of an overlong line):
//
//   buffer        eventBegin              bufferEnd            buffer + bufferSize
//     |  delivered   |  undelivered lines,   |       free          | spare
//     |              |  then a partial line  |                     |  byte
//
// Back-pressure: a refused event stays between eventBegin and bufferEnd and reading stops
// until a retry one second later or the concrete source's next wake-up.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sources/log_event_source.h"

class FileLogEventSource : public LogEventSource {
 public:
  /// Opens `filename` read-only and non-blocking; on failure logs and keeps fd at -1.
  FileLogEventSource(const Log& log, const std::string& filename, const std::string& writeToken);
  /// Frees the buffer. Doesn't close fd: an ended stream keeps its descriptor to the end.
  ~FileLogEventSource() override;

  bool isAvailable() const override;

  /// Reads and delivers until a read gives no data, the sink refuses, or about 1 MiB has been
  /// read in this call. Called by the concrete source's wake-ups and by its retry timer.
  void consume();
  /// Delivers one event (with prepend and extracted time, if set) in its own sink call. On a
  /// refusal arms the one-second retry; the bytes stay in the buffer.
  bool handleEvent(const uint8_t* begin, const uint8_t* end);
  /// Delivers `count` > 0 events, as one sink call with one time when neither prepend nor
  /// extractor is set. A refused batch arms no retry.
  bool handleEvents(EphemeralLogEvent* events, uint32_t count);

 protected:
  void registerContext() override;
  /// What a read without data means to the concrete source: `result` 0 or -1, `readError` errno.
  virtual void handleReadFailure(int result, int readError) = 0;

  uint64_t bufferSize = 0;
  std::unique_ptr<uint8_t[]> buffer;
  uint8_t* eventBegin = nullptr;
  uint8_t* bufferEnd = nullptr;
  std::string filename;
  int fd = -1;
  /// Calls consume; its address is the key of every retry timeout of this source.
  std::function<bool()> retryConsume;
};
