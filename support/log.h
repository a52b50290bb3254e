// Structured log: every report of the agent leaves as one JSON line on standard output.
// Public header; every folder may include it.
//
// A Log is a std::ostream. Stream a message into it and end it with std::endl: the flush turns
// the message and the Log's attributes into one line. Attributes are added with with(), which
// never changes the receiver. Report through info()/error(), which give the message its level and
// a Log that outlives the statement (the per-thread message slot).
#pragma once

#include <memory>
#include <ostream>
#include <sstream>
#include <string>

class Log : public std::ostream {
 public:
  struct Attributes {
    std::shared_ptr<Attributes> next;
    std::string key;
    std::string value;
  };

  explicit Log(std::ostream& output);
  /// Same output and attributes (the chain is shared); a half-written message is not copied.
  Log(const Log& other);
  Log& operator=(const Log&) = delete;

  /// A new Log with one more attribute in front of this one's. Aborts in the middle of a message.
  Log with(const std::string& key, const std::string& value) const;
  template <typename T>
  Log with(const std::string& key, const T& value) const {
    std::ostringstream text;
    text << value;
    return with(key, text.str());
  }

 private:
  friend Log& info(const Log& log);
  friend Log& error(const Log& log);
  /// Readies this thread's message slot for a message of `log` at `level`.
  static Log& startMessage(const Log& log, const char* level);

  class FormattingBuffer : public std::stringbuf {
   public:
    explicit FormattingBuffer(Log* owner) : log(owner) {}
    int sync() override;

   private:
    Log* log;
  };

  std::ostream* output;
  FormattingBuffer formattingBuffer;
  std::shared_ptr<Attributes> attributes;
};

/// Starts a message at level "INFO" (or "ERROR") in this thread's message slot; end it with
/// std::endl. The returned Log stays valid until the thread's next message.
Log& info(const Log& log);
Log& error(const Log& log);

/// JSON string escaping of raw bytes: control bytes as \u00XX, quote and backslash escaped,
/// everything else (0x7F and bytes from 0x80 up included) unchanged.
std::string escapeJson(const std::string& text);
void appendEscapedJson(std::string& out, const char* data, size_t size);
