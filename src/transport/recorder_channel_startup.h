// The recording side of start-up: unplugged mode, the "process" message and the agent interface.
#pragma once

class RecorderMessage;

void startRecorderChannel();
// The "process" message of the calling process, to be sent ahead of its first other message.
RecorderMessage* buildProcessMessage();
