// An extension, on when TALVEX_SOCKET_AGENT_FOLLOW_FORKS is set: a child after fork records as a
// process of its own (its own pid, its own "process" message ahead of its first message) instead
// of going on under its parent's identity. The ticket and call numbers go on from the parent's.
#pragma once

extern const char* const kFollowForksVariable;

// Read once at start-up.
void readFollowForks();
// Run in the child of every fork (from the fork reset), after the locks are usable again.
void followForkInChild();
