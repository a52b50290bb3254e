#include "support/log.h"

#include <cassert>
#include <mutex>
#include <set>

namespace {

// One lock for every Log of the process, so lines of two threads never interleave.
std::mutex lineMutex;

// The message slot: the Log a thread's current message is streamed into.
thread_local std::unique_ptr<Log> messageSlot;

Log& startMessage(const Log& log, const char* level) {
  Log temporary = log.with("level", level);
  messageSlot = std::make_unique<Log>(temporary);
  return *messageSlot;
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
  std::lock_guard<std::mutex> lock(lineMutex);
  std::set<std::string> seen;
  std::ostream& out = *log->output;
  out << "{";
  for (std::shared_ptr<Attributes> node = log->attributes; node; node = node->next) {
    if (node->key.empty() || seen.count(node->key)) continue;
    out << '"' << escapeJson(node->key) << "\":\"" << escapeJson(node->value) << "\", ";
    seen.insert(node->key);
  }
  const std::string text = str();
  assert(!str().empty() && str().back() == '\n');
  out << "\"message\": \"";
  std::string message;
  appendEscapedJson(message, text.data(), text.size() - 1);
  out << message << '"' << "}" << std::endl;
  str(std::string());
  return 0;
}

Log& info(const Log& log) { return startMessage(log, "INFO"); }

Log& error(const Log& log) { return startMessage(log, "ERROR"); }
