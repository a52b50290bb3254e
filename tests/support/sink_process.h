// drover-sink as a child process on an ephemeral loopback port, for the suites that need a real
// endpoint. Tests only.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/test_helpers.h"

/// The one whole line of `err` that is a bare number, as --print-port writes it; 0 while none is.
/// (A plain scan: <regex> would cost each suite that includes this seconds of compile time.)
inline uint16_t printedPort(const std::string& err) {
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) {
      return static_cast<uint16_t>(std::stoul(line));
    }
  }
  return 0;
}

/// Replaces `sink` by drover-sink with `flags` in `dir`, standard output and error to dir/sink.out
/// and dir/sink.err. Returns the port that --print-port wrote; 0 if none came.
inline uint16_t startSink(const TempDir& dir, std::vector<std::string> flags,
                          std::unique_ptr<ChildProcess>& sink) {
  flags.insert(flags.begin(), {DROVER_SINK_BINARY, "--listen", "127.0.0.1:0", "--print-port"});
  sink.reset();
  sink =
      std::make_unique<ChildProcess>(flags, dir.file("sink.out"), dir.file("sink.err"), dir.path());
  std::string err;
  uint16_t port = 0;
  EXPECT_TRUE(
      waitFor([&] { return (port = printedPort(err = readFile(dir.file("sink.err")))) != 0; },
              std::chrono::seconds(10)))
      << err;
  return port;
}
