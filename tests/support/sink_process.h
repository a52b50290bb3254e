// drover-sink as a child process on an ephemeral loopback port, for the suites that need a real
// endpoint. Tests only.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/test_helpers.h"

/// Replaces `sink` by drover-sink with `flags` in `dir`, standard output and error to dir/sink.out
/// and dir/sink.err. Returns the port that --print-port wrote, the one line of standard error
/// that is a bare number; 0 if none came.
inline uint16_t startSink(const TempDir& dir, std::vector<std::string> flags,
                          std::unique_ptr<ChildProcess>& sink) {
  flags.insert(flags.begin(), {DROVER_SINK_BINARY, "--listen", "127.0.0.1:0", "--print-port"});
  sink.reset();
  sink =
      std::make_unique<ChildProcess>(flags, dir.file("sink.out"), dir.file("sink.err"), dir.path());
  static const std::regex bare("(^|\n)([0-9]+)\n");
  std::string err;
  std::smatch port;
  EXPECT_TRUE(
      waitFor([&] { return regex_search(err = readFile(dir.file("sink.err")), port, bare); },
              std::chrono::seconds(10)))
      << err;
  return port.empty() ? 0 : static_cast<uint16_t>(std::stoul(port[2]));
}
