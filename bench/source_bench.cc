// Throughput of the stream source's read-and-frame path against a bare read()+memchr loop over
// the same file, which no line reader can beat. The file (about 210 MB of 120-byte lines) is made
// once in /tmp and reused; it is read from the page cache after the first pass.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "protocol/ingest_contexts_map.h"
#include "sources/stream_log_event_source.h"
#include "sources/timestamp_extractor.h"
#include "support/log.h"

namespace {

const char* const BENCH_FILE = "/tmp/drover-source-bench.log";
constexpr off_t TARGET_SIZE = 210ll * 1000 * 1000;
constexpr size_t LINE_LENGTH = 120;

// Lines as a service would write them: an ISO time first, then some varying text, padded to
// LINE_LENGTH bytes with the newline.
std::string makeLine(uint64_t n) {
  const uint64_t second = n / 1000;
  char text[LINE_LENGTH + 1];
  int length = snprintf(
      text, sizeof text,
      "2024-05-%02llu %02llu:%02llu:%02llu.%06llu host-%02llu app[%llu]: "
      "request %llu served in %llu ms, status 200",
      static_cast<unsigned long long>(1 + second / 86400 % 28),
      static_cast<unsigned long long>(second / 3600 % 24),
      static_cast<unsigned long long>(second / 60 % 60),
      static_cast<unsigned long long>(second % 60),
      static_cast<unsigned long long>(n % 1000 * 1000), static_cast<unsigned long long>(n % 17),
      static_cast<unsigned long long>(4000 + n % 97), static_cast<unsigned long long>(n),
      static_cast<unsigned long long>(n * 7 % 1000));
  std::string line(text, static_cast<size_t>(length));
  line.resize(LINE_LENGTH - 1, ' ');
  line += '\n';
  return line;
}

const std::string& benchFile() {
  static const std::string path = [] {
    struct stat attributes;
    if (stat(BENCH_FILE, &attributes) == 0 && attributes.st_size >= TARGET_SIZE) {
      return std::string(BENCH_FILE);
    }
    // Written under another name first, so an interrupted run never leaves a short file behind.
    const std::string partial = std::string(BENCH_FILE) + ".partial";
    FILE* out = fopen(partial.c_str(), "w");
    if (!out) {
      perror("fopen");
      abort();
    }
    off_t written = 0;
    for (uint64_t n = 0; written < TARGET_SIZE; ++n) {
      const std::string line = makeLine(n);
      fwrite(line.data(), 1, line.size(), out);
      written += static_cast<off_t>(line.size());
    }
    fclose(out);
    if (rename(partial.c_str(), BENCH_FILE) != 0) {
      perror("rename");
      abort();
    }
    return std::string(BENCH_FILE);
  }();
  return path;
}

void reportTotals(benchmark::State& state, uint64_t bytes, uint64_t lines) {
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.SetItemsProcessed(static_cast<int64_t>(lines));
  state.counters["lines"] =
      benchmark::Counter(static_cast<double>(lines) / static_cast<double>(state.iterations()));
  // Seconds per line, shown with an SI prefix (n for nanoseconds).
  state.counters["per_line"] = benchmark::Counter(
      static_cast<double>(lines), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The ceiling: the same reads the source makes, and a newline search, and nothing else.
void BM_ReadMemchrCeiling(benchmark::State& state) {
  const std::string& path = benchFile();
  std::vector<char> buffer(65526);
  uint64_t bytes = 0;
  uint64_t lines = 0;
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (;;) {
      const ssize_t got = read(fd, buffer.data(), buffer.size());
      if (got <= 0) break;
      bytes += static_cast<uint64_t>(got);
      const char* scan = buffer.data();
      const char* end = scan + got;
      while (const void* found = memchr(scan, '\n', static_cast<size_t>(end - scan))) {
        ++lines;
        scan = static_cast<const char*>(found) + 1;
      }
    }
    close(fd);
  }
  benchmark::DoNotOptimize(lines);
  reportTotals(state, bytes, lines);
}

enum class Variant { PLAIN, PREPEND, FIRST_ISO };

// Reads the file through a StreamLogEventSource into a sink that takes everything. consume is
// called directly until the source completes, so no loop adds its own cost.
void streamSource(benchmark::State& state, Variant variant) {
  const std::string& path = benchFile();
  std::ostream discard(nullptr);
  Log log(discard);
  IngestContextsMap contexts(log);
  struct stat attributes;
  stat(path.c_str(), &attributes);
  uint64_t bytes = 0;
  uint64_t lines = 0;
  uint64_t timeSum = 0;
  for (auto _ : state) {
    // Counted as file bytes, so that a prepend doesn't inflate the figure.
    bytes += static_cast<uint64_t>(attributes.st_size);
    StreamLogEventSource source(log, path, "bench");
    if (variant == Variant::PREPEND) source.setPrepend("host=web-07 ");
    if (variant == Variant::FIRST_ISO) {
      source.setTimestampExtractor(std::move(*makeTimeSource("first-iso").extractor));
    }
    source.setIngestContextsMap(contexts);
    source.setEventCallback(
        [&](uint32_t, uint64_t timestamp, const EphemeralLogEvent* events, uint32_t count) {
          lines += count;
          timeSum += timestamp + static_cast<uint64_t>(events[count - 1].end - events[0].begin);
          return true;
        });
    while (!source.isCompleted()) source.consume();
  }
  benchmark::DoNotOptimize(timeSum);
  reportTotals(state, bytes, lines);
}

void BM_StreamSource(benchmark::State& state) {
  streamSource(state, Variant::PLAIN);
}
void BM_StreamSourcePrepend(benchmark::State& state) {
  streamSource(state, Variant::PREPEND);
}
void BM_StreamSourceFirstIso(benchmark::State& state) {
  streamSource(state, Variant::FIRST_ISO);
}

BENCHMARK(BM_ReadMemchrCeiling)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StreamSource)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StreamSourcePrepend)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_StreamSourceFirstIso)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);

}  // namespace

BENCHMARK_MAIN();
