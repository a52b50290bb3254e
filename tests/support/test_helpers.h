// Helpers shared by the test suites: temporary directories, files, a bounded loop run and running
// a program with its output captured. Tests only.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

class EventLoop;

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

void writeFile(const std::string& path, const std::string& content);
void appendFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);

/// Runs `loop` until `done` holds or `limit` has passed; returns whether `done` held.
bool runUntil(EventLoop& loop, const std::function<bool()>& done,
              std::chrono::milliseconds limit = std::chrono::seconds(5));

struct ProcessResult {
  int exitCode = -1;    // exit status, or -1 if the process did not exit normally
  int signal = 0;       // terminating signal, 0 if it exited
  bool timedOut = false;
  std::string out;
  std::string err;
};

/// Runs argv[0] with the given arguments, optionally in `cwd` and with `input` on its stdin;
/// kills it with SIGKILL when `timeout` passes.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30),
                         const std::string& cwd = "", const std::string& input = "");

/// The lines of `text`, without their newlines.
std::vector<std::string> splitLines(const std::string& text);
