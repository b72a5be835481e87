// Finding the recorder core library and its nanosecond clock.
#pragma once

extern const char* const kRecorderCoreRelativeDirectory;
extern const char* const kRecorderCoreFileName;
extern const char* const kRecorderCorePathVariable;

// Beside the agent first, then at the path the environment names; leaves getCurrentTimePtr null
// when neither has the clock.
void locateRecorderCore();
