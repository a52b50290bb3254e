// The process-wide run flag and a two-stage signal handler built on it: the first signal asks for
// an orderly exit, the second exits at once. Public header.
#pragma once

#include <atomic>

#include "support/log.h"

/// False from the moment an orderly exit has been asked for; never set back to true.
extern std::atomic<bool> keepRunning;

/// Reads keepRunning; takes no argument so that it can serve as a loop's run condition.
bool shouldKeepRunning();

/// Installs handleSignalExit for SIGINT and SIGTERM and ignores SIGPIPE, reporting to `log`,
/// which must live until the process ends. False if an installation failed.
bool installExitHandlers(const Log& log);

/// First call clears keepRunning; a call with the flag already cleared exits with status 0.
void handleSignalExit(int);
