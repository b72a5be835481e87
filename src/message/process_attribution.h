// An extension, on with TALVEX_SOCKET_AGENT_PID_EVERYWHERE: resolutions and notices name their
// process like every other message, so that a reader of a recording of many processes never has
// to guess whose they are.
#pragma once

class RecorderMessage;

// Adds "pid" to a message that otherwise goes without one, when the extension is on.
void attributeToProcess(RecorderMessage& message);
