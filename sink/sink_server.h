// The sink as a whole on one event loop: the listener, the accepted connections, what the output
// thread reports back, the periodic report and sweep, and the conditions under which a run ends.
// Internal to sink/.
//
// Main thread only. Declare the EventLoop and the SinkOutput before the server: the server removes
// its timers, listeners and output handler when it dies, and the loop drops any timeout still
// pending after that.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "loop/event_loop.h"
#include "sink/sink_connection.h"
#include "sink/sink_listener.h"
#include "sink/sink_options.h"
#include "sink/sink_output.h"
#include "support/log.h"

class SinkServer {
 public:
  SinkServer(const Log& log, EventLoop& loop, const SinkOptions& options, SinkOutput& output);
  ~SinkServer();
  SinkServer(const SinkServer&) = delete;
  SinkServer& operator=(const SinkServer&) = delete;

  /// Binds the listening socket and starts the timers. False if the address can't be had.
  bool start();
  uint16_t port() const { return listener.port(); }
  /// The run condition beside the process's run flag: false once an exit condition of the
  /// command line holds or the output has failed.
  bool shouldRun() const;
  /// The closing INFO line with the totals.
  void reportFinal();

 private:
  void accept(int socket, const ConnectionInfo& peer);
  /// Acknowledges what the output thread wrote and lets held connections read again.
  void outputProgressed();
  bool report();
  bool sweep();
  bool checkIdle();
  /// The attributes every report carries.
  Log totals(uint64_t eventsPerSecond) const;

  Log log;
  EventLoop& loop;
  SinkShared shared;
  SinkListener listener;
  std::vector<std::unique_ptr<SinkConnection>> connections;
  bool idleExit = false;
  uint64_t lastReportNanos = 0;  // monotonic
  uint64_t lastReportEvents = 0;
  size_t nextToResume = 0;  // turns go round, so that one busy connection can't starve the rest
  char reportKey = 0, sweepKey = 0, idleKey = 0;
};
