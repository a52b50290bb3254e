#include "sink/sink_output.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// What precedes a batch in the queue; then come the token and the events as on the wire.
struct RecordHeader {
  uint64_t timestamp;
  uint64_t connection;
  uint64_t batch;
  uint64_t eventBytes;
  uint32_t context;
  uint32_t count;
  uint32_t tokenSize;
};

// Half the writer's buffer: a full buffer of small events goes out in one write, and its batches
// are acknowledged without waiting for the rest of what was taken from the queue.
constexpr size_t PUBLISH_AFTER = EventWriter::BUFFER_SIZE / 2;

// Handing over once per pass of the loop rather than once per TLS record spares the output
// thread most of its wake-ups; a large pass still gives it work early.
constexpr size_t HAND_OVER_AT = SinkOutput::DEFAULT_LIMIT / 4;

QueuedBatch takeBatch(const char*& cursor) {
  RecordHeader header;
  memcpy(&header, cursor, sizeof header);
  cursor += sizeof header;
  QueuedBatch batch;
  batch.token = std::string_view(cursor, header.tokenSize);
  cursor += header.tokenSize;
  batch.context = header.context;
  batch.timestamp = header.timestamp;
  batch.connection = header.connection;
  batch.batch = header.batch;
  batch.events = WireEvents{cursor, cursor + header.eventBytes, header.count};
  cursor += header.eventBytes;
  return batch;
}

}  // namespace

SinkOutput::SinkOutput(const Log& parent, EventLoop& eventLoop, std::unique_ptr<EventWriter> w,
                       size_t queueLimit)
    : log(parent.with("component", "SinkOutput")),
      loop(eventLoop),
      limit(queueLimit),
      writer(std::move(w)),
      bareBytes(writer->outputFormat() == OutputFormat::RAW) {
  wakeDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeDescriptor == -1) {
    // Only descriptor exhaustion at start-up gets here; without it no batch could be acknowledged.
    const int savedErrno = errno;
    error(log) << "Could not create an eventfd: " << strerror(savedErrno) << std::endl;
    std::abort();
  }
  loop.setEpollListener(wakeDescriptor, EPOLLIN, this);
  thread = std::thread([this] { runOutputThread(); });
}

SinkOutput::~SinkOutput() {
  finish();
  loop.removeEpollListener(this);
  close(wakeDescriptor);
}

uint64_t SinkOutput::add(const std::string& token, uint32_t context, uint64_t timestamp,
                         uint64_t connection, uint64_t batch, const WireEvents& events) {
  if (bareBytes) {
    events.forEach([this](const char* event, size_t size) { filling.append(event, size); });
  } else {
    appendRecord(token, context, timestamp, connection, batch, events);
  }
  ++fillingBatches;
  if (filling.size() >= HAND_OVER_AT) {
    handOver();
  } else if (!handOverScheduled) {
    handOverScheduled = true;
    loop.addTimeout(0, &handOverKey, [this] {
      handOverScheduled = false;
      handOver();
      return true;
    });
  }
  return addedBatches++;
}

void SinkOutput::appendRecord(const std::string& token, uint32_t context, uint64_t timestamp,
                              uint64_t connection, uint64_t batch, const WireEvents& events) {
  const RecordHeader header{timestamp,
                            connection,
                            batch,
                            static_cast<uint64_t>(events.end - events.begin),
                            context,
                            events.count,
                            static_cast<uint32_t>(token.size())};
  filling.append(reinterpret_cast<const char*>(&header), sizeof header);
  filling.append(token);
  filling.append(events.begin, events.end);
}

void SinkOutput::handOver() {
  if (fillingBatches == 0) return;
  // Counted before the output thread can see the bytes, so its subtraction never comes first.
  queuedBytes.fetch_add(filling.size(), std::memory_order_relaxed);
  {
    std::lock_guard lock(mutex);
    // Copying happens only while the output thread is behind; otherwise the buffers trade places.
    if (pending.empty()) {
      pending.swap(filling);
    } else {
      pending.append(filling);
    }
    pendingBatches += fillingBatches;
  }
  filling.clear();
  fillingBatches = 0;
  handedOver.notify_one();
}

void SinkOutput::finish() {
  if (!thread.joinable()) return;
  handOver();
  {
    std::lock_guard lock(mutex);
    stopping = true;
  }
  handedOver.notify_one();
  thread.join();
}

void SinkOutput::descriptorAvailable(int) {
  uint64_t count = 0;
  if (read(wakeDescriptor, &count, sizeof count) != sizeof count) return;
  if (progressHandler) progressHandler();
}

void SinkOutput::runOutputThread() {
  std::string taken;
  uint64_t batches = 0;  // taken from the queue so far
  while (true) {
    uint64_t takenBatches = 0;
    {
      std::unique_lock lock(mutex);
      handedOver.wait(lock, [this] { return pendingBatches > 0 || stopping; });
      if (pendingBatches == 0) return;
      taken.swap(pending);
      takenBatches = pendingBatches;
      pendingBatches = 0;
    }
    if (bareBytes) {
      // Batches of empty events still count: they are written, by writing nothing.
      writer->writeBytes(taken.data(), taken.size());
      batches += takenBatches;
      publish(batches, taken.size());
      taken.clear();
      continue;
    }
    const char* cursor = taken.data();
    const char* const end = cursor + taken.size();
    const char* unpublished = cursor;
    while (cursor < end) {
      writer->writeBatch(takeBatch(cursor));
      ++batches;
      if (writer->buffered() >= PUBLISH_AFTER) {
        publish(batches, static_cast<size_t>(cursor - unpublished));
        unpublished = cursor;
      }
    }
    if (cursor != unpublished) publish(batches, static_cast<size_t>(cursor - unpublished));
    taken.clear();
  }
}

void SinkOutput::publish(uint64_t batches, size_t bytes) {
  writer->flush();
  if (writer->hasFailed()) {
    failed.store(true, std::memory_order_release);
  } else {
    writtenBatches.store(batches, std::memory_order_release);
  }
  queuedBytes.fetch_sub(bytes, std::memory_order_relaxed);
  const uint64_t one = 1;
  // The counter only saturates after 2^64 - 2 wake-ups: this write cannot meet a full eventfd.
  if (write(wakeDescriptor, &one, sizeof one) != sizeof one) {
    const int savedErrno = errno;
    error(log) << "Could not wake the event loop: " << strerror(savedErrno) << std::endl;
  }
}
