// The sink's output on a thread of its own, so that a slow disk or a slow reader of the pipe never
// holds up the event loop: the loop copies each batch into a bounded queue, the output thread
// formats and writes it, and tells the loop which batches have reached the output, so that their
// acknowledgements can go out. Internal to sink/.
//
// Everything public but the constructor's thread runs on the loop's thread. Batches are written
// in the order they were added.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "loop/event_loop.h"
#include "sink/event_writer.h"
#include "support/log.h"

class SinkOutput : public EpollListener {
 public:
  /// Queued bytes past which full() holds. Small on purpose: the socket buffers of both ends
  /// already hold several MB, which is the cushion for a short hiccup of the output, and a lasting
  /// slow output has to reach the agent's source soon (at 2 MB/s, 1 MiB here sometimes let a
  /// producer of 12 MB run on for seconds).
  static constexpr size_t DEFAULT_LIMIT = 512 << 10;

  /// Starts the output thread, which from then on is the only user of `writer`.
  SinkOutput(const Log& log, EventLoop& loop, std::unique_ptr<EventWriter> writer,
             size_t limit = DEFAULT_LIMIT);
  /// finish(), unless that has happened already.
  ~SinkOutput();
  SinkOutput(const SinkOutput&) = delete;
  SinkOutput& operator=(const SinkOutput&) = delete;

  /// Runs on the loop after the output thread wrote batches or made room.
  void setProgressHandler(std::function<void()> handler) { progressHandler = std::move(handler); }

  /// Copies one batch into the queue and returns its sequence number: batches are numbered from
  /// 0 in the order they were added. It goes to the output thread at the end of the loop's pass,
  /// or at once when much has gathered.
  uint64_t add(const std::string& token, uint32_t context, uint64_t timestamp, uint64_t connection,
               uint64_t batch, const WireEvents& events);
  /// Passes what was added since the last call to the output thread.
  void handOver();
  /// At least the limit is queued and not yet written: time to stop reading.
  bool full() const {
    return queuedBytes.load(std::memory_order_relaxed) + filling.size() >= limit;
  }
  /// Every batch with a lower sequence number has been handed to the output descriptor.
  uint64_t written() const { return writtenBatches.load(std::memory_order_acquire); }
  /// A write failed; from then on nothing is written and nothing more counts as written.
  bool hasFailed() const { return failed.load(std::memory_order_acquire); }

  /// Hands everything over, waits until the output thread has written it and ends the thread.
  void finish();

  /// The output thread's wake-up call on the eventfd.
  void descriptorAvailable(int events) override;

 private:
  void appendRecord(const std::string& token, uint32_t context, uint64_t timestamp,
                    uint64_t connection, uint64_t batch, const WireEvents& events);
  void runOutputThread();
  /// Writes out what the writer buffers; then `batches` count as written and `bytes` of the
  /// queue are free again, and the loop hears of it.
  void publish(uint64_t batches, size_t bytes);

  Log log;
  EventLoop& loop;
  const size_t limit;
  std::unique_ptr<EventWriter> writer;  // the output thread's
  std::function<void()> progressHandler;
  int wakeDescriptor = -1;  // eventfd: output thread to loop
  /// Raw output is the events' bytes and nothing else: the queue holds just those, and the output
  /// thread writes them from there.
  const bool bareBytes;
  std::string filling;          // the loop's: added since the last hand-over
  uint64_t fillingBatches = 0;  // the loop's
  uint64_t addedBatches = 0;    // the loop's
  bool handOverScheduled = false;
  char handOverKey = 0;  // timer key: its address lives exactly as long as this object

  std::mutex mutex;
  std::condition_variable handedOver;
  std::string pending;          // guarded by mutex: handed over, not yet taken by the output thread
  uint64_t pendingBatches = 0;  // guarded by mutex
  bool stopping = false;        // guarded by mutex

  std::atomic<size_t> queuedBytes{0};  // added and not yet written
  std::atomic<uint64_t> writtenBatches{0};
  std::atomic<bool> failed{false};
  std::thread thread;  // last: starts once everything above is in place
};
