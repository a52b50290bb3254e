// Linked when the sink is built with mimalloc (CMakeLists.txt).
#include <mimalloc.h>

#include "sink/memory_release.h"

void releaseFreedMemoryPromptly() {
  mi_option_set(mi_option_decommit_delay, 0);
  mi_option_set(mi_option_segment_decommit_delay, 0);
}
