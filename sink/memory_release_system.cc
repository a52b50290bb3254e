// Linked when the sink keeps the system allocator (CMakeLists.txt): sanitizer builds, or
// DROVER_MIMALLOC off. It has no delay to shorten.
#include "sink/memory_release.h"

void releaseFreedMemoryPromptly() {}
