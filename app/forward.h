// The forward subcommand: read sources, ship their lines to ingest endpoints.
#pragma once

#include "support/log.h"

/// Runs `drover forward ...`; argv[0] is the word "forward". Returns the process status.
int forward(const Log& log, int argc, char** argv);
