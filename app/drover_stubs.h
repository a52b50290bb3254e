// Stand-ins for query-side code that the shared protocol code refers to and an agent never runs.
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
