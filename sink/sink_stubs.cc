#include "app/drover_stubs.h"

#include <cassert>

// The shared protocol code refers to query-side paths that no sink takes either. Reaching one
// is a program error, and never() stops the process there.

void never() {
  assert(false);
}

void destroyQueryLogPlan() { never(); }
void moveQueryLogPlan() { never(); }
void evaluateQueryLog() { never(); }
void answerQueryCaches() { never(); }
void openObjectStore() { never(); }
void registerStructureSwitch() { never(); }
void electDatabaseLeader() { never(); }
