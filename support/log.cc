#include "support/log.h"

#include <cassert>
#include <mutex>
#include <string_view>

namespace {

// One lock for every Log of the process, so lines of two threads never interleave.
std::mutex lineMutex;

// The message slot: the Log a thread's current message is streamed into. Made once per thread
// and started anew for each message.
thread_local std::unique_ptr<Log> messageSlot;

// Whether a node nearer the head of the chain than `node` has the same key.
bool isShadowed(const Log::Attributes* head, const Log::Attributes* node) {
  for (const Log::Attributes* newer = head; newer != node; newer = newer->next.get()) {
    if (newer->key == node->key) return true;
  }
  return false;
}

}  // namespace

Log::Log(std::ostream& destination)
    : std::ostream(nullptr), output(&destination), formattingBuffer(this) {
  rdbuf(&formattingBuffer);
}

Log::Log(const Log& other)
    : std::basic_ios<char>(),
      std::ostream(nullptr),
      output(other.output),
      formattingBuffer(this),
      attributes(other.attributes) {
  rdbuf(&formattingBuffer);
}

Log Log::with(const std::string& key, const std::string& value) const {
  assert(formattingBuffer.str().empty());
  Log derived(*output);
  derived.attributes = std::make_shared<Attributes>(Attributes{attributes, key, value});
  return derived;
}

Log& Log::startMessage(const Log& log, const char* level) {
  if (!messageSlot) messageSlot = std::make_unique<Log>(*log.output);
  Log& slot = *messageSlot;
  // As fresh as a new Log: no half message, no stream state or format left from the last one.
  slot.formattingBuffer.str(std::string());
  slot.clear();
  slot.flags(std::ios_base::skipws | std::ios_base::dec);
  slot.precision(6);
  slot.width(0);
  slot.fill(' ');
  slot.output = log.output;
  slot.attributes = std::make_shared<Attributes>(Attributes{log.attributes, "level", level});
  return slot;
}

void appendEscapedJson(std::string& out, const char* data, size_t size) {
  static constexpr char HEX[] = "0123456789ABCDEF";
  const size_t start = out.size();
  out.resize(start + 6 * size);
  char* write = out.data() + start;
  for (size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(data[i]);
    if (byte < 0x20) {
      *write++ = '\\';
      *write++ = 'u';
      *write++ = '0';
      *write++ = '0';
      *write++ = HEX[byte >> 4];
      *write++ = HEX[byte & 0xF];
    } else if (byte == '"' || byte == '\\') {
      *write++ = '\\';
      *write++ = static_cast<char>(byte);
    } else {
      *write++ = static_cast<char>(byte);
    }
  }
  out.resize(static_cast<size_t>(write - out.data()));
}

std::string escapeJson(const std::string& text) {
  std::string out;
  appendEscapedJson(out, text.data(), text.size());
  return out;
}

int Log::FormattingBuffer::sync() {
  // The line is built in a buffer of the thread's own and leaves in one write, so the lock is
  // held for the write alone and nothing is allocated once the buffer has grown.
  thread_local std::string line;
  line.clear();
  line += '{';
  const Attributes* head = log->attributes.get();
  for (const Attributes* node = head; node; node = node->next.get()) {
    if (node->key.empty() || isShadowed(head, node)) continue;
    line += '"';
    appendEscapedJson(line, node->key.data(), node->key.size());
    line += "\":\"";
    appendEscapedJson(line, node->value.data(), node->value.size());
    line += "\", ";
  }
  assert(!str().empty() && str().back() == '\n');
  const std::string_view text = view();
  line += "\"message\": \"";
  appendEscapedJson(line, text.data(), text.size() - 1);
  line += "\"}\n";
  // Handing the text back keeps its capacity for the next message.
  std::string emptied = std::move(*this).str();
  emptied.clear();
  str(std::move(emptied));

  std::lock_guard<std::mutex> lock(lineMutex);
  log->output->write(line.data(), static_cast<std::streamsize>(line.size()));
  log->output->flush();
  return 0;
}

Log& info(const Log& log) {
  return Log::startMessage(log, "INFO");
}

Log& error(const Log& log) {
  return Log::startMessage(log, "ERROR");
}
