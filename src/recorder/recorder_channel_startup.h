// The recording side of start-up: unplugged mode, the "process" message and the agent interface.
#pragma once

void startRecorderChannel();
