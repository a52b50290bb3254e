// Stand-ins for query-side code that the shared protocol code refers to and an agent never runs.
// Its own small library, below the connection library that needs it: the two query-plan stubs
// are the move and destruction of CmdQueryLog, and the connection's second parsing stage is
// defined beside them. The other five have no caller; they name the rest of the query side
// that this program leaves out.
#pragma once

/// Stops the process: reaching it means a path that cannot happen has happened.
void never();

void destroyQueryLogPlan();
void moveQueryLogPlan();
void evaluateQueryLog();
void answerQueryCaches();
void openObjectStore();
void registerStructureSwitch();
void electDatabaseLeader();
