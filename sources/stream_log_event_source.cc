#include "sources/stream_log_event_source.h"

#include <sys/epoll.h>
#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint64_t POLL_INTERVAL = 1000000;

}  // namespace

StreamLogEventSource::StreamLogEventSource(const Log& baseLog, const std::string& path,
                                           const std::string& writeToken)
    : FileLogEventSource(baseLog, path, writeToken) {}

StreamLogEventSource::~StreamLogEventSource() {
  unregister();
}

void StreamLogEventSource::registerAt(EventLoop& eventLoop) {
  assert(ingestContextsMap);
  unregister();
  LogEventSource::registerAt(eventLoop);
  if (fd == -1) return;

  struct stat attributes;
  if (fstat(fd, &attributes) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not determine file attributes: " << strerror(savedErrno) << std::endl;
  } else {
    polled = (attributes.st_mode & S_IFMT) == S_IFREG;
  }

  if (polled) {
    // Under a refusal the next tick calls consume anyway; no retry is needed for files.
    loop->addInterval(POLL_INTERVAL, this, [this] {
      if (fd != -1) consume();
      return true;
    });
  } else {
    loop->setEpollListener(fd, EPOLLIN, this);
  }
}

void StreamLogEventSource::unregister() {
  if (!loop) return;
  // With fd -1 no wake-up was ever set up (or the stream has ended and left already).
  if (fd != -1) {
    if (polled) {
      loop->removeInterval(this);
    } else {
      loop->removeEpollListener(this);
    }
  }
  loop = nullptr;
}

bool StreamLogEventSource::isCompleted() const {
  return fd == -1;
}

void StreamLogEventSource::handleReadFailure(int result, int readError) {
  if (result == -1) {
    // EAGAIN is the normal state of an empty pipe whose writer is still there.
    if (readError == EAGAIN) return;
    error(log) << "Could not read from file " << filename << ": " << strerror(readError)
               << std::endl;
    return;
  }
  if (result != 0) return;
  info(log) << "Stream at " << filename << " has ended." << std::endl;
  unregister();
  // Left open on purpose: the descriptor is kept until the process ends.
  fd = -1;
}

// HUP and ERR lead to a read like IN does: the read tells what happened.
void StreamLogEventSource::descriptorAvailable(int) {
  consume();
}
