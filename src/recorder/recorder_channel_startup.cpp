#include "recorder/recorder_channel_startup.h"

// The recorder channel is not built yet: no agent interface exists, so nothing is ever sent.
void startRecorderChannel() {}
