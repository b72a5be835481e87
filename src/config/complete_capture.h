// An extension, on when TALVEX_SOCKET_AGENT_COMPLETE_CAPTURE is set: the recording holds every
// byte the program moved on its TCP connections and nothing else. The I/O paths real clients use
// beside send and recv (writev, readv, sendfile, accept4, the fortified receives) are recorded; a
// send records the bytes the system took; a peek is not taken for consumed data; an end of stream
// carries no data; accepted connections and connected sockets the process did not create itself
// are recorded. Unset, those entry points pass straight to the C library and every message is
// the one the agent has always sent.
#pragma once

extern const char* const kCompleteCaptureVariable;

// Read at start-up, with the other switches.
void readCompleteCapture();
// Whether the extension is on. Only meaningful once start-up has read it.
bool completeCaptureOn();
// For the extension's own entry points, which may be the first call of the process: whether they
// are to enter the agent at all. Reads the environment the first time, before start-up if need be.
bool completeCaptureRequested();
