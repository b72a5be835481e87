// Mirrors passing log lines to a TCP listener; dormant unless its once-flag starts cleared.
#pragma once

extern int debugSocket;
extern int debugServerActive;
extern const char* debugIpVal;
extern int debugPortVal;

void initializeDebugServer();
void sendDebugMessage(const char* line);
