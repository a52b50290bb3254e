// drover-sink as a child process on an ephemeral loopback port, for the suites that need a real
// endpoint. Tests only.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/test_helpers.h"

/// The port that --print-port wrote: the one line of standard error that is a bare number, or
/// "" while there is none.
inline std::string printedPort(const std::string& errText) {
  static const std::regex bare("(^|\n)([0-9]+)\n");
  std::smatch match;
  return std::regex_search(errText, match, bare) ? match[2].str() : "";
}

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
  ASSERT_TRUE(waitFor([&] { return !(port = printedPort(readFile(dir.file("sink.err")))).empty(); },
                      std::chrono::seconds(10)))
      << readFile(dir.file("sink.err"));
}
