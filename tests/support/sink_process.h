// drover-sink as a child process on an ephemeral loopback port, for the suites that need a real
// endpoint. Tests only.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/test_helpers.h"

/// Starts `sinkBinary` in `dir` writing raw events to dir/received; sets `port` once it listens.
/// Call through ASSERT_NO_FATAL_FAILURE.
inline void startSinkProcess(const std::string& sinkBinary, const TempDir& dir,
                             const std::vector<std::string>& flags,
                             std::unique_ptr<ChildProcess>& sink, std::string& port) {
  std::vector<std::string> argv = {sinkBinary, "--listen", "127.0.0.1:0", "--print-port",
                                   "--format", "raw",      "--out",       dir.file("received")};
  argv.insert(argv.end(), flags.begin(), flags.end());
  sink =
      std::make_unique<ChildProcess>(argv, dir.file("sink.out"), dir.file("sink.err"), dir.path());
  std::smatch match;
  const std::regex portLine("(^|\n)([0-9]+)\n");
  ASSERT_TRUE(waitFor(
      [&] {
        const std::string err = readFile(dir.file("sink.err"));
        if (!std::regex_search(err, match, portLine)) return false;
        port = match[2];
        return true;
      },
      std::chrono::seconds(10)))
      << readFile(dir.file("sink.err"));
}
