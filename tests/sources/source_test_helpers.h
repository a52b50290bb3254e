// Shared by the sources' suites: a recording sink and a fixture with a real loop, a contexts map
// and a Log on a string stream. Tests only.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "loop/event_loop.h"
#include "protocol/ingest_contexts_map.h"
#include "sources/log_event_source.h"
#include "tests/support/test_helpers.h"

/// Records what it accepts; `accept` decides each call, given its count.
struct RecordingSink {
  std::vector<std::string> events;
  std::vector<uint32_t> batchSizes;
  std::vector<uint64_t> times;
  size_t calls = 0;
  size_t refusals = 0;
  std::function<bool(uint32_t)> accept = [](uint32_t) { return true; };

  EventSink sink() {
    return [this](uint32_t, uint64_t time, const EphemeralLogEvent* batch, uint32_t count) {
      ++calls;
      if (!accept(count)) {
        ++refusals;
        return false;
      }
      for (const EphemeralLogEvent* e = batch; e != batch + count; ++e) {
        events.emplace_back(reinterpret_cast<const char*>(e->begin),
                            reinterpret_cast<const char*>(e->end));
        times.push_back(time);
      }
      batchSizes.push_back(count);
      return true;
    };
  }
};

inline std::string logLine(const std::string& level, const std::string& message,
                           const std::string& component = "") {
  const std::string attribute = component.empty() ? "" : "\"component\":\"" + component + "\", ";
  return "{\"level\":\"" + level + "\", " + attribute + "\"message\": \"" + message + "\"}";
}

class SourceFixture : public ::testing::Test {
 protected:
  /// What the forward run does before registerAt.
  void configure(LogEventSource& source) {
    source.setIngestContextsMap(contexts);
    source.setEventCallback(sunk.sink());
  }

  /// Log lines without throughput reports and loop metrics, whose figures vary.
  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    for (const std::string& line : splitLines(out.str())) {
      if (line.find("Event coding speed: ") == std::string::npos &&
          line.find("\"message\": \"metrics\"") == std::string::npos) {
        lines.push_back(line);
      }
    }
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
  RecordingSink sunk;
};
