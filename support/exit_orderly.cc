#include "support/exit_orderly.h"

#include <cassert>
#include <csignal>
#include <cstdlib>

std::atomic<bool> keepRunning{true};

namespace {

const Log* exitOrderlyLog = nullptr;

}  // namespace

bool shouldKeepRunning() { return keepRunning; }

// Logging from the handler is a deliberate simplicity: it takes the log's mutex and allocates, so a
// signal landing inside a log line of the same thread would block it. That is accepted.
void handleSignalExit(int) {
  assert(exitOrderlyLog);
  bool expected = true;
  if (keepRunning.compare_exchange_strong(expected, false)) {
    info(*exitOrderlyLog) << "Scheduling orderly exit." << std::endl;
    return;
  }
  info(*exitOrderlyLog) << "Exiting immediately." << std::endl;
  exit(0);
}

bool installExitHandlers(const Log& log) {
  exitOrderlyLog = &log;
  if (signal(SIGINT, handleSignalExit) == SIG_ERR) {
    error(log) << "Could not install clean exit handler." << std::endl;
    return false;
  }
  if (signal(SIGTERM, handleSignalExit) == SIG_ERR) {
    error(log) << "Could not install clean exit handler." << std::endl;
    return false;
  }
  if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    error(log) << "Could not ignore SIGPIPE." << std::endl;
    return false;
  }
  return true;
}
