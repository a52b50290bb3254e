#include "sources/tail_log_event_source.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t WATCH_MASK = IN_MODIFY | IN_MOVE_SELF;
constexpr uint64_t CHECK_INTERVAL = 5000000000;
// Lets the writer move on to the new file while what is left in the old one is read.
constexpr uint64_t REOPEN_DELAY = 30000000000;
constexpr uint64_t EAGAIN_RETRY_DELAY = 100000000;

}  // namespace

TailLogEventSource::TailLogEventSource(const Log& baseLog, const std::string& path,
                                       const std::string& writeToken)
    : FileLogEventSource(baseLog, path, writeToken) {
  if (fd == -1) return;
  if (static_cast<int>(lseek(fd, 0, SEEK_END)) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not seek to end of file: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
}

TailLogEventSource::~TailLogEventSource() {
  unregister();
  if (loop) {
    loop->removeInterval(&truncationCheckKey);
    loop->removeInterval(&reopenCheckKey);
  }
}

void TailLogEventSource::registerAt(EventLoop& eventLoop) {
  assert(ingestContextsMap);
  unregister();
  LogEventSource::registerAt(eventLoop);
  loop->addInotifyWatch(filename, WATCH_MASK, this);
  loop->addInterval(CHECK_INTERVAL, &truncationCheckKey, [this] { return checkTruncation(); });
  loop->addInterval(CHECK_INTERVAL, &reopenCheckKey, [this] { return checkReopen(); });
  // The first read waits for the first inotify event.
}

void TailLogEventSource::unregister() {
  if (loop) loop->removeInotifyWatch(this);
}

bool TailLogEventSource::isCompleted() const {
  return false;
}

void TailLogEventSource::inotifyEvent(uint32_t mask) {
  if (mask & IN_MOVE_SELF) {
    info(log) << "Log file has been moved. Will reopen." << std::endl;
    reopenTime = wallClockNanos() + REOPEN_DELAY;
  }
  consume();
}

void TailLogEventSource::handleReadFailure(int result, int readError) {
  // 0 is the end of the file: the normal waiting state until the next inotify event.
  if (result != -1) return;
  if (readError == EAGAIN) loop->addTimeout(EAGAIN_RETRY_DELAY, &retryConsume, retryConsume);
  error(log) << "Could not read from file " << filename << ": " << strerror(readError) << std::endl;
}

// Catches a truncation that left the read position beyond the end. One that has grown past the
// old position again by the time of the check goes unnoticed.
bool TailLogEventSource::checkTruncation() {
  const off_t position = lseek(fd, 0, SEEK_CUR);
  if (position == -1) {
    const int savedErrno = errno;
    error(log) << "Could not determine current file position: " << strerror(savedErrno)
               << std::endl;
    return true;
  }
  const off_t end = lseek(fd, 0, SEEK_END);
  if (end == -1) {
    const int savedErrno = errno;
    error(log) << "Could not determine end of file position: " << strerror(savedErrno) << std::endl;
    return true;
  }
  if (lseek(fd, position, SEEK_SET) != position) {
    const int savedErrno = errno;
    error(log) << "Failed to resume reading at old file position: " << strerror(savedErrno)
               << std::endl;
  }
  if (position > end) {
    info(log) << "Log file has been truncated. Will reopen." << std::endl;
    reopenTime = wallClockNanos();
  }
  return true;
}

bool TailLogEventSource::checkReopen() {
  if (wallClockNanos() < reopenTime) return false;
  reopen();
  return true;
}

void TailLogEventSource::reopen() {
  info(log) << "Reopening log file." << std::endl;
  const int newFd = open(filename.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (newFd == -1) {
    const int savedErrno = errno;
    error(log) << "Could not open " << filename << ": " << strerror(savedErrno) << std::endl;
    // The old descriptor and watch stay in use; the path is tried again later.
    reopenTime = wallClockNanos() + REOPEN_DELAY;
    return;
  }
  if (close(fd) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not close old log file: " << strerror(savedErrno) << std::endl;
  }
  // The IN_IGNORED of the removed watch reaches the loop as one "unknown watcher" line.
  loop->removeInotifyWatch(this);
  loop->addInotifyWatch(filename, WATCH_MASK, this);
  fd = newFd;
  reopenTime = NEVER;
  // Read from the start: what the writer put there before the reopen is wanted. A partial line
  // of the old file is continued by the first bytes of the new one.
  consume();
}
