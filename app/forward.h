// The forward subcommand: read sources, ship their lines to ingest endpoints.
#pragma once

#include <optional>
#include <string>

#include "protocol/connection_info.h"
#include "support/log.h"

/// Runs `drover forward ...`; argv[0] is the word "forward". Returns the process status.
int forward(const Log& log, int argc, char** argv);

/// Splits "host:port" at its last colon and checks the port; reports its own refusals. A port
/// text that doesn't start with a number throws (std::stoi), which nothing catches.
std::optional<ConnectionString> parseConnectionString(const Log& log, const std::string& text);
