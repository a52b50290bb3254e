// A source that follows a live log file from its end and survives rotation. Public header; the
// command line builds it for "tail".
#pragma once

#include <cstdint>
#include <string>

#include "sources/file_log_event_source.h"

/// Growth is reported by inotify on the file itself. A move (IN_MOVE_SELF) schedules a reopen of
/// the path 30 s later, while the old file is still drained through the open descriptor; a
/// truncation, found by a five-second position check, schedules it at once. Never completes.
class TailLogEventSource : public FileLogEventSource, private InotifyWatcher {
 public:
  /// Opens the file and seeks to its end, so existing content is skipped. A failed seek (the
  /// path is no regular file) stops the process.
  TailLogEventSource(const Log& log, const std::string& filename, const std::string& writeToken);
  /// Removes the watch and the periodic checks; the loop must still exist if registered.
  ~TailLogEventSource() override;

  /// Needs the contexts map set. Binds once: a second call aborts, as unregister keeps the loop.
  void registerAt(EventLoop& eventLoop) override;
  void unregister() override;
  bool isCompleted() const override;

 private:
  void handleReadFailure(int result, int readError) override;
  void inotifyEvent(uint32_t mask) override;
  bool checkTruncation();
  bool checkReopen();
  void reopen();

  static constexpr uint64_t NEVER = ~0ull;
  /// Wall-clock time at or after which the path is reopened; NEVER while following.
  uint64_t reopenTime = NEVER;
  // Timer keys. Declared in this order so that, keyed by address, a truncation found in one
  // pass is acted on by the reopen check of the same pass.
  char truncationCheckKey = 0;
  char reopenCheckKey = 0;
};
