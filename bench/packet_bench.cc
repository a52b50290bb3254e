// Cost of writing a full batch into a connection's send buffer, against a bare memcpy of the same
// bytes. Both run on the same lines, so the ratio of their byte rates is the framing overhead.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"

namespace {

constexpr uint32_t LINES = 256;
constexpr size_t LINE_LENGTH = 120;

// A connection whose queued bytes can be dropped, so every iteration writes to the same place
// and the steady state allocates nothing.
class BenchConnection : public NetworkConnection {
 public:
  BenchConnection(const Log& baseLog, int fd)
      : NetworkConnection(baseLog, ConnectionInfo(), fd, false) {}
  void dropQueued() { sendRead = sendWrite = sendBuffer.get(); }
};

// 256 lines of about 120 bytes, back to back as in a source's read buffer.
struct Lines {
  Lines() {
    for (uint32_t i = 0; i < LINES; ++i) {
      std::string line = "2024-05-06T07:08:09.123Z host app[" + std::to_string(1000 + i) + "]: ";
      line.resize(LINE_LENGTH - 1 - (i % 7), 'x');
      bytes += line + "\n";
    }
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    size_t start = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
      if (bytes[i] != '\n') continue;
      events.push_back({p + start, p + i + 1});
      start = i + 1;
    }
  }
  std::string bytes;
  std::vector<EphemeralLogEvent> events;
};

void BM_SendLogEvents(benchmark::State& state) {
  const Lines lines;
  std::ostringstream sink;
  const Log log(sink);
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  {
    BenchConnection con(log, fds[0]);
    const CmdIngestLogEvents cmd{1, 1714979289000000000ull, lines.events.data(), LINES};
    uint64_t packetSize = 0;
    for (auto _ : state) {
      con.send(cmd);
      packetSize = con.usedSendBuffer();
      con.dropQueued();
      benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * packetSize));
    state.counters["packet_bytes"] = static_cast<double>(packetSize);
  }
  close(fds[1]);
}
BENCHMARK(BM_SendLogEvents);

// The floor: the same number of bytes as one packet, copied in one piece.
void BM_MemcpyBatch(benchmark::State& state) {
  const Lines lines;
  const size_t packetSize = 6 + 16 + 2 * LINES + lines.bytes.size();
  std::string source(packetSize, 'y');
  memcpy(source.data(), lines.bytes.data(), lines.bytes.size());
  std::vector<uint8_t> target(65536);
  for (auto _ : state) {
    memcpy(target.data(), source.data(), packetSize);
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * packetSize));
  state.counters["packet_bytes"] = static_cast<double>(packetSize);
}
BENCHMARK(BM_MemcpyBatch);

// What any event-by-event framing has to pay at least: one copy per line, no lengths.
void BM_MemcpyPerLine(benchmark::State& state) {
  const Lines lines;
  std::vector<uint8_t> target(65536);
  for (auto _ : state) {
    uint8_t* out = target.data();
    for (const EphemeralLogEvent& event : lines.events) {
      memcpy(out, event.begin, event.end - event.begin);
      out += event.end - event.begin;
    }
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * lines.bytes.size()));
}
BENCHMARK(BM_MemcpyPerLine);

}  // namespace

BENCHMARK_MAIN();
