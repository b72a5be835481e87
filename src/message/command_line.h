// An extension, on with TALVEX_SOCKET_AGENT_COMMAND_LINE: the process message names the program
// (its arguments as /proc gives them, each ended by a zero byte, in the "commandline" attribute),
// so that a recording of a tree of processes says which is which.
#pragma once

class RecorderMessage;

// At most this many bytes of the command line are sent; a longer one is cut there.
const unsigned kLongestCommandLine = 4096;

// Adds "commandline" to the process message, when the extension is on and /proc answers.
void addCommandLine(RecorderMessage& message);
