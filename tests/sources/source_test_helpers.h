// Shared by the sources' suites: a fixture with a real loop, a contexts map, a Log on a string
// stream and a sink that records what it accepts. Tests only.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "loop/event_loop.h"
#include "protocol/ingest_contexts_map.h"
#include "sources/log_event_source.h"
#include "tests/support/test_helpers.h"

inline std::string logLine(const std::string& level, const std::string& message) {
  return "{\"level\":\"" + level + "\", \"message\": \"" + message + "\"}";
}

class SourceFixture : public ::testing::Test {
 protected:
  /// What the forward run does before registerAt. `accept` decides each sink call.
  void configure(LogEventSource& source) {
    source.setIngestContextsMap(contexts);
    source.setEventCallback(
        [this](uint32_t, uint64_t time, const EphemeralLogEvent* batch, uint32_t count) {
          ++calls;
          if (!accept()) return false;
          for (const EphemeralLogEvent* e = batch; e != batch + count; ++e) {
            events.emplace_back(reinterpret_cast<const char*>(e->begin),
                                reinterpret_cast<const char*>(e->end));
            times.push_back(time);
          }
          batchSizes.push_back(count);
          return true;
        });
  }

  /// Log lines without throughput reports and loop metrics, whose figures vary.
  std::vector<std::string> logLines() const {
    std::vector<std::string> lines = splitLines(out.str());
    std::erase_if(lines, [](const std::string& line) {
      return line.find("Event coding speed: ") != line.npos ||
             line.find("\"metrics\"") != line.npos;
    });
    return lines;
  }

  void runBriefly() {
    runUntil(
        loop, [] { return false; }, std::chrono::milliseconds(50));
  }

  std::ostringstream out;
  Log log{out};
  EventLoop loop{log};
  IngestContextsMap contexts{log};
  TempDir dir;
  const std::string path = dir.file("app.log");
  std::vector<std::string> events;
  std::vector<uint32_t> batchSizes;
  std::vector<uint64_t> times;
  size_t calls = 0;
  std::function<bool()> accept = [] { return true; };
};
