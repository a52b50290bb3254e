// drover-sink: a local ingest endpoint for trying, testing and benchmarking the agent. Events go
// to standard output (or --out), the log to standard error.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <variant>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "sink/certificate.h"
#include "sink/event_writer.h"
#include "sink/memory_release.h"
#include "sink/sink_options.h"
#include "sink/sink_output.h"
#include "sink/sink_server.h"
#include "support/exit_orderly.h"
#include "support/log.h"

int main(int argc, char** argv) {
  std::variant<SinkOptions, UsageError> parsed = parseSinkOptions(argc, argv);
  if (const UsageError* usage = std::get_if<UsageError>(&parsed)) {
    std::cerr << "drover-sink: " << usage->message << "\n";
    printSinkUsage(std::cerr);
    return 2;
  }
  const SinkOptions& options = std::get<SinkOptions>(parsed);
  if (options.help) {
    printSinkUsage(std::cout);
    return 0;
  }

  // Standard output carries the events, so the log goes to standard error. The exit handlers
  // keep a pointer to it, hence static.
  static const Log log = Log(std::cerr).with("application", "drover_sink");
  releaseFreedMemoryPromptly();
  if (!installExitHandlers(log)) return 1;

  int out = STDOUT_FILENO;
  if (!options.outPath.empty()) {
    out = open(options.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out == -1) {
      const int savedErrno = errno;
      error(log) << "Could not open " << options.outPath << ": " << strerror(savedErrno)
                 << std::endl;
      return 1;
    }
  }

  if (!ensureCertificate(log)) return 1;
  NetworkConnection::Initialize(log, true, false);

  EventLoop loop(log);
  SinkOutput output(log, loop,
                    std::make_unique<EventWriter>(log, out, out != STDOUT_FILENO, options.format,
                                                  options.receivedTime));
  SinkServer server(log, loop, options, output);
  if (!server.start()) return 1;
  if (options.printPort) std::cerr << server.port() << std::endl;

  loop.runWhile([&server] { return shouldKeepRunning() && server.shouldRun(); });

  // Everything taken gets written, also what arrived after the last acknowledgement went out.
  output.finish();
  server.reportFinal();
  return output.hasFailed() ? 1 : 0;
}
