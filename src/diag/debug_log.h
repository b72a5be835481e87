// The diagnostic log: one filtered, tagged line per call of x_disp, written to a per-process file.
#pragma once

#include <stdarg.h>
#include <stdio.h>

enum DebugMessageKind {
  DMK_ERROR = 0,
  DMK_INFO = 1,
  DMK_HOOK = 2,
  DMK_CALL = 3,
  DMK_RET = 4,
  DMK_WARNING = 5,
  DMK_DATA = 6,
  DMK_LAUNCH = 7,
  DMK_LOW = 8,
  DMK_GENERAL = 9,
};

extern const char* const IMAGE_DEBUG[10];

extern int debugLvl;
extern char* debugFileNameFlush;
extern FILE* hLogFile;
extern char* internal_buffer_display;
extern int internal_buffer_display_size;
extern bool defaultDebugDisplayInitialized;

// Where every passing line goes besides the file: the debug-server mirror, which sits above the
// log (it needs the real network functions, and they log), sets itself here when it starts.
typedef void (*LogLineMirror)(const char* line);
extern LogLineMirror logLineMirror;

// A text argument for a "%s" of a log line: the C library prints a null one as "(null)", but
// passing null to "%s" is not something to rely on.
inline const char* orNull(const char* text) { return text != nullptr ? text : "(null)"; }

void x_disp(int kind, const char* format, ...) __attribute__((format(printf, 2, 3)));
void vx_disp(int kind, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
int isDebugLevelEnable(int kind);
// Whether a line of `kind` would be written anywhere: texts built only for a log line are built
// only then.
bool logLineWanted(int kind);
int getDebugLvl();
void set_default_debug_display(const char* baseName);
void set_file_display(const char* fileName, const char* directoryName);
void build_debug_file_name(const char* dir, const char* base, const char* extension, char** outName,
                           unsigned* outSize);
void initializeCriticalSections();
// In a forked child: the log lock usable again.
void resetLogAfterFork();
void cleanCriticalSections();

unsigned Mystrlen(const char* text);
unsigned Mystrtolower(char* text);
void* Mymemset(void* destination, int value, unsigned count);
