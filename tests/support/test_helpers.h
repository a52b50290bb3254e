// Helpers shared by the test suites: temporary directories, files, a bounded loop run and running
// a program with its output captured. Tests only.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/log_event.h"

class EventLoop;

/// Whether the programs under test run with a sanitizer, whose shadow memory and quarantine
/// swamp any figure of their own memory.
constexpr bool SANITIZED_BUILD = DROVER_SANITIZED;

/// A fresh directory under /tmp, removed with its contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return root; }
  std::string file(const std::string& name) const { return root + "/" + name; }

 private:
  std::string root;
};

/// A view of `text`'s bytes as one event.
inline EphemeralLogEvent eventOf(const std::string& text) {
  const auto* begin = reinterpret_cast<const uint8_t*>(text.data());
  return {begin, begin + text.size()};
}

void writeFile(const std::string& path, const std::string& content);
void appendFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);

/// Runs `loop` until `done` holds or `limit` has passed; returns whether `done` held.
bool runUntil(EventLoop& loop, const std::function<bool()>& done,
              std::chrono::milliseconds limit = std::chrono::seconds(5));

struct ProcessResult {
  int exitCode = -1, signal = 0;  // exit status or -1; terminating signal or 0
  std::string out, err;
};

/// Runs argv[0] with the given arguments and nothing on its stdin; kills it with SIGKILL when
/// `timeout` passes.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));

/// The lines of `text`, without their newlines.
std::vector<std::string> splitLines(const std::string& text);

/// A program running in the background, stdin from /dev/null and stdout and stderr going to
/// files; killed with SIGKILL and reaped at destruction if it is still running.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const std::string& outPath,
               const std::string& errPath, const std::string& cwd = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void signal(int number) const;
  /// Waits up to `limit` for the exit; true if it exited. Then exitCode()/exitSignal() tell how.
  bool wait(std::chrono::milliseconds limit);
  int exitCode() const { return code; }
  int exitSignal() const { return terminatingSignal; }
  /// A memory line of /proc/PID/status in KiB while running (VmHWM: the peak, VmRSS: now), 0 if
  /// it can't be read.
  long memoryKib(const std::string& field = "VmHWM") const;
  /// User and system CPU seconds of all its threads so far.
  double cpuSeconds() const;

 private:
  int child = -1;
  bool reaped = false;
  int code = -1;
  int terminatingSignal = 0;
};

/// Polls `condition` every 10 ms for up to `limit`; returns whether it held.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit);
