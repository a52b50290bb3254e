// The abstract log source: one file, pipe or FIFO turned into batches of events for the event
// sink. Public header; the forward run configures sources through it.
//
// Calling order: setPrepend and setTimestampExtractor while the command line is read, then
// setIngestContextsMap, setEventCallback and registerAt at the start of the run. Loop thread only.
#pragma once

#include <memory>
#include <string>

#include "loop/event_loop.h"
#include "protocol/ingest_contexts_map.h"
#include "sources/timestamp_extractor.h"
#include "support/log.h"
#include "support/log_event.h"

class LogEventSource {
 public:
  LogEventSource(const Log& log, std::string writeToken);
  /// Leaves the loop alone: concrete sources unregister in their own destructors.
  virtual ~LogEventSource();
  LogEventSource(const LogEventSource&) = delete;
  LogEventSource& operator=(const LogEventSource&) = delete;

  /// Text put in front of every event. Only before registerAt: the read buffer is sized by it.
  void setPrepend(std::string&& text);
  /// Null means the wall clock stamps events.
  void setTimestampExtractor(std::unique_ptr<TimestampExtractor> extractor);
  /// Not owned; must outlive the source. Registers the source's context at once, so the write
  /// token and configuration must be final by then.
  void setIngestContextsMap(IngestContextsMap& map);
  void setEventCallback(EventSink callback);

  /// Binds the source to `eventLoop`, which must outlive the registration. Concrete sources
  /// unregister first, then call this, then set up their wake-ups. Aborts if already bound.
  virtual void registerAt(EventLoop& eventLoop);
  /// Removes the source's wake-ups from the loop.
  virtual void unregister() = 0;
  /// Whether the file could be opened.
  virtual bool isAvailable() const = 0;
  /// Whether the source will produce nothing more.
  virtual bool isCompleted() const = 0;

 protected:
  /// Stores the id that `ingestContextsMap` gives `configuration` in `configuration.context`.
  virtual void registerContext() = 0;

  Log log;
  EventLoop* loop = nullptr;
  LogEventSourceConfiguration configuration;
  EventSink eventCallback;
  std::unique_ptr<TimestampExtractor> timestampExtractor;
  std::string prepend;
  IngestContextsMap* ingestContextsMap = nullptr;
};
