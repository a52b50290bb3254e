// The sink's TLS identity: "brindlewood.crt" and "brindlewood.key" in the working directory,
// made on the spot as a self-signed pair when both are missing. Internal to sink/.
#pragma once

#include "support/log.h"

/// True if both files are there afterwards. Makes an EC P-256 key and a certificate valid for ten
/// years when neither file exists; each file appears whole, and sinks started together end up
/// with one pair. Refuses (ERROR line, false) when only one of them stays there for two seconds,
/// so as not to overwrite half of somebody's pair.
bool ensureCertificate(const Log& log);
