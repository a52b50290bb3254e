#include "app/drover_stubs.h"

#include <cassert>

#include "net/network_connection.h"

// Each stub stands for a path that an agent never takes. Reaching one is a program error, and
// never() stops the process there.

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

// The agent takes no commands beyond those of its own protocol.
bool NetworkConnection::parseOtherCommand(uint16_t, IncomingPacket&) { return false; }
