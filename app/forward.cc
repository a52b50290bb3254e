#include "app/forward.h"

#include <ostream>

int forward(const Log& log, int, char**) {
  Log runLog = log.with("application", "forward");
  error(runLog) << "Forwarding is not available in this build yet." << std::endl;
  return 1;
}
