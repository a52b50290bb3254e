// The forward subcommand: read sources, ship their lines to ingest endpoints.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "protocol/connection_info.h"
#include "sources/log_event_source.h"
#include "support/log.h"

using ForwardSources = std::vector<std::unique_ptr<LogEventSource>>;

/// Runs `drover forward ...`; argv[0] is the word "forward". Returns the process status.
int forward(const Log& log, int argc, char** argv);

/// Splits "host:port" at its last colon and checks the port; reports its own refusals. A port
/// text that doesn't start with a number throws (std::stoi), which nothing catches.
std::optional<ConnectionString> parseConnectionString(const Log& log, const std::string& text);

/// The forward grammar alone: one pass from left to right, sources opening their files as the
/// words are read. False after reporting the first refusal (or after `help`); nothing here
/// touches the network.
bool parseForwardArguments(const Log& log, int argc, char** argv, ForwardSources& sources,
                           std::vector<ConnectionString>& connectionStrings);
