// The diagnostic log's file, kept apart from the host's descriptors. A daemon may close every
// descriptor it did not open and reuse the numbers: the log must then never write into whatever
// the host opened next, and it goes on in its own file instead.
#pragma once

#include <stddef.h>
#include <stdio.h>

// Opens (truncates) the log at `path`; close-on-exec, so that no program the host runs inherits it.
FILE* openLogFile(const char* path);
// Appends one line and flushes it at once, so that a process killed by a signal keeps its log.
// `path` is where the file lives, for reopening it when its descriptor was taken from it.
void writeLogLine(FILE** file, const char* path, const char* line, size_t length);
