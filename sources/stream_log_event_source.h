// A source that reads a file, pipe or FIFO once from its start to its end, then completes.
// Public header; the command line builds it for "stream".
#pragma once

#include <string>

#include "sources/file_log_event_source.h"

/// Regular files are polled every millisecond (epoll can't watch them); everything else is woken
/// by level-triggered epoll. At the end of the stream the source leaves the loop and completes;
/// an unterminated last line is not delivered.
class StreamLogEventSource : public FileLogEventSource, private EpollListener {
 public:
  StreamLogEventSource(const Log& log, const std::string& filename, const std::string& writeToken);
  /// Unregisters from the loop, which must still exist if the source is registered.
  ~StreamLogEventSource() override;

  /// Needs the contexts map set. May be called again: unregister clears the binding.
  void registerAt(EventLoop& eventLoop) override;
  void unregister() override;
  bool isCompleted() const override;

 private:
  void handleReadFailure(int result, int readError) override;
  void descriptorAvailable(int events) override;

  bool polled = false;
};
