#include "sources/log_event_source.h"

#include <cassert>
#include <utility>

LogEventSource::LogEventSource(const Log& baseLog, std::string writeToken) : log(baseLog) {
  configuration.enableAck = true;
  configuration.truncateTimestamp = true;
  configuration.timestampDivider = 1000000;
  configuration.writeToken = std::move(writeToken);
  configuration.context = 0xFFFFFFFF;
}

LogEventSource::~LogEventSource() = default;

void LogEventSource::registerAt(EventLoop& eventLoop) {
  assert(!loop);
  loop = &eventLoop;
}

void LogEventSource::setPrepend(std::string&& text) {
  assert(!loop);
  prepend = std::move(text);
}

void LogEventSource::setTimestampExtractor(std::unique_ptr<TimestampExtractor> extractor) {
  timestampExtractor = std::move(extractor);
}

void LogEventSource::setIngestContextsMap(IngestContextsMap& map) {
  ingestContextsMap = &map;
  registerContext();
}

void LogEventSource::setEventCallback(EventSink callback) {
  eventCallback = std::move(callback);
}
