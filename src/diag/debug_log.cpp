#include "diag/debug_log.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/critical_section.h"
#include "base/environment.h"
#include "base/process_identity.h"
#include "base/variable_names.h"
#include "diag/log_file.h"

const char* const IMAGE_DEBUG[10] = {"ERROR", "INFO ", "HOOK ", "CALL ", "RET  ",
                                     "WARNI", "DATA ", "LAUNC", "LOW  ", "GENER"};

// All bits set until start-up reads the configuration; with no file configured nothing but
// DMK_LOW passes anyway, so this only matters once a file exists.
int debugLvl = -1;
char* debugFileNameFlush = nullptr;
FILE* hLogFile = nullptr;
char* internal_buffer_display = nullptr;
int internal_buffer_display_size = 8192;
bool defaultDebugDisplayInitialized = false;
LogLineMirror logLineMirror = nullptr;

namespace {

// Zero bytes are a valid unlocked mutex for this C library, so a line logged before start-up has
// created the lock still finds a usable one.
pthread_mutex_t criticalSectionLog;

const int kInitialBufferSize = 8192;
const int kGrowthStep = 4096;
const char* const kLogDirectoryVariable = TALVEX_VAR_DEBUG_DIR;
const char* const kLogLevelVariable = TALVEX_VAR_DEBUG_LVL;

bool linePasses(int kind) {
  if (kind == DMK_LOW) return true;
  if (debugFileNameFlush == nullptr) return false;
  return ((static_cast<unsigned>(debugLvl) >> (static_cast<unsigned>(kind) % 32)) & 1u) != 0;
}

}  // namespace

int isDebugLevelEnable(int kind) {
  if (kind == DMK_LOW) return 1;
  return static_cast<int>((static_cast<unsigned>(debugLvl) >> (static_cast<unsigned>(kind) % 32)) & 1u);
}

bool logLineWanted(int kind) { return linePasses(kind); }

int getDebugLvl() { return debugLvl; }

void x_disp(int kind, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vx_disp(kind, format, arguments);
  va_end(arguments);
}

void vx_disp(int kind, const char* format, va_list arguments) {
  if (!linePasses(kind) || format == nullptr) return;
  // The host must see errno as its own call left it, whatever stdio does here.
  const int savedErrno = errno;
  StartCriticalSectionBase(&criticalSectionLog);
  if (internal_buffer_display == nullptr) {
    // No buffer: start-up has not made one yet, or a growth failed. The line is dropped.
    EndCriticalSectionBase(&criticalSectionLog);
    errno = savedErrno;
    return;
  }
  int prefixLength = 0;
  if (kind != DMK_GENERAL) {
    const char* tag = (kind >= 0 && kind < 10) ? IMAGE_DEBUG[kind] : "?????";
    prefixLength = snprintf(internal_buffer_display, internal_buffer_display_size, "[%s]", tag);
  }
  va_list again;
  va_copy(again, arguments);
  int formatted = vsnprintf(internal_buffer_display + prefixLength,
                            internal_buffer_display_size - prefixLength - 1, format, arguments);
  if (formatted < 0) formatted = 0;
  int length = prefixLength + formatted;
  int grownTo = 0;
  if (length + 7 >= internal_buffer_display_size) {
    const int newSize = ((length + 8) / kGrowthStep) * kGrowthStep + kGrowthStep;
    char* grown = static_cast<char*>(realloc(internal_buffer_display, newSize));
    if (grown == nullptr) {
      free(internal_buffer_display);
      internal_buffer_display = nullptr;
      va_end(again);
      EndCriticalSectionBase(&criticalSectionLog);
      errno = savedErrno;
      return;
    }
    internal_buffer_display = grown;
    internal_buffer_display_size = newSize;
    grownTo = newSize;
    formatted = vsnprintf(internal_buffer_display + prefixLength, newSize - prefixLength, format, again);
    if (formatted < 0) formatted = 0;
    length = prefixLength + formatted;
  }
  va_end(again);
  internal_buffer_display[length] = '\n';
  internal_buffer_display[length + 1] = '\0';
  // DMK_LOW lines are meant for the recorder, never for the file; the recorder side of them has
  // no consumer, so only the mirror sees them.
  if (kind != DMK_LOW && debugFileNameFlush != nullptr && hLogFile != nullptr) {
    writeLogLine(&hLogFile, debugFileNameFlush, internal_buffer_display, strlen(internal_buffer_display));
  }
  if (logLineMirror != nullptr) logLineMirror(internal_buffer_display);
  EndCriticalSectionBase(&criticalSectionLog);
  if (grownTo != 0) x_disp(DMK_INFO, "buffer resized to : %d", grownTo);
  errno = savedErrno;
}

void resetLogAfterFork() {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  criticalSectionLog = fresh;
}

void initializeCriticalSections() {
  AllocCriticalSectionBase(&criticalSectionLog);
  internal_buffer_display_size = kInitialBufferSize;
  internal_buffer_display = static_cast<char*>(malloc(kInitialBufferSize));
  if (internal_buffer_display != nullptr) internal_buffer_display[0] = '\0';
}

void cleanCriticalSections() {
  debugLvl = 0;
  FreeCriticalSectionBase(&criticalSectionLog);
  free(internal_buffer_display);
  internal_buffer_display = nullptr;
  internal_buffer_display_size = kInitialBufferSize;
}

void build_debug_file_name(const char* dir, const char* base, const char* extension, char** outName,
                           unsigned* outSize) {
  currentProcessId = getpid();
  char stamp[80];
  time_t now = time(nullptr);
  struct tm utc;
  if (gmtime_r(&now, &utc) == nullptr || strftime(stamp, sizeof stamp, "%Y-%m-%d-%H_%M_%S", &utc) == 0) {
    stamp[0] = '\0';
  }
  for (char* c = stamp; *c; ++c) {
    if (*c == ' ' || *c == ':' || *c == '\n') *c = '_';
  }
  char pidPart[16];
  snprintf(pidPart, sizeof pidPart, "_%d", currentProcessId);
  if (dir == nullptr) dir = "";
  if (base == nullptr) base = "";
  if (extension == nullptr) extension = "";
  const size_t size = strlen(dir) + strlen(base) + 1 + strlen(stamp) + strlen(pidPart) + strlen(extension) + 1;
  char* name = static_cast<char*>(malloc(size));
  if (name != nullptr) snprintf(name, size, "%s%s_%s%s%s", dir, base, stamp, pidPart, extension);
  *outName = name;
  *outSize = name != nullptr ? static_cast<unsigned>(size) : 0;
}

void set_file_display(const char* fileName, const char* directoryName) {
  AllocCriticalSectionBase(&criticalSectionLog);
  free(internal_buffer_display);
  internal_buffer_display_size = kInitialBufferSize;
  internal_buffer_display = static_cast<char*>(malloc(kInitialBufferSize));
  if (internal_buffer_display != nullptr) internal_buffer_display[0] = '\0';

  free(debugFileNameFlush);
  debugFileNameFlush = nullptr;
  if (fileName == nullptr) return;
  debugFileNameFlush = strdup(fileName);
  if (debugFileNameFlush == nullptr) return;
  hLogFile = openLogFile(debugFileNameFlush);
  if (hLogFile == nullptr) return;

  // Formatted apart from the line buffer: a long directory would not fit its 8192 bytes.
  const char* const headerFormat = "[%s]debug level : %d\t debug dir : %s\t debug file : %s\t pid : %d\n";
  const char* dirText = orNull(directoryName);
  const int size = snprintf(nullptr, 0, headerFormat, IMAGE_DEBUG[DMK_INFO], debugLvl, dirText,
                            debugFileNameFlush, currentProcessId);
  if (size <= 0) return;
  char* header = static_cast<char*>(malloc(size + 1));
  if (header == nullptr) return;
  snprintf(header, size + 1, headerFormat, IMAGE_DEBUG[DMK_INFO], debugLvl, dirText, debugFileNameFlush,
           currentProcessId);
  writeLogLine(&hLogFile, debugFileNameFlush, header, static_cast<size_t>(size));
  free(header);
}

void set_default_debug_display(const char* baseName) {
  if (defaultDebugDisplayInitialized) return;
  const char* level = getenv(kLogLevelVariable);
  debugLvl = level != nullptr ? intFromText(level) : 0;
  const char* dir = getenv(kLogDirectoryVariable);
  // An empty directory names none: taken as it stands it would put the log at the root.
  if (dir != nullptr && dir[0] != '\0' && debugLvl != 0) {
    mkdir(dir, 0777);
    const size_t dirLength = strlen(dir);
    char* dirWithSlash = static_cast<char*>(malloc(dirLength + 2));
    if (dirWithSlash == nullptr) return;
    memcpy(dirWithSlash, dir, dirLength);
    dirWithSlash[dirLength] = '/';
    dirWithSlash[dirLength + 1] = '\0';
    char* fileName = nullptr;
    unsigned fileNameSize = 0;
    build_debug_file_name(dirWithSlash, baseName, ".txt", &fileName, &fileNameSize);
    set_file_display(fileName, dirWithSlash);
    free(fileName);
    free(dirWithSlash);
    defaultDebugDisplayInitialized = true;
    return;
  }
  set_file_display(nullptr, nullptr);
  defaultDebugDisplayInitialized = true;
}

unsigned Mystrlen(const char* text) {
  unsigned n = 0;
  while (text[n] != '\0') ++n;
  return n;
}

unsigned Mystrtolower(char* text) {
  unsigned n = 0;
  for (; text[n] != '\0'; ++n) {
    if (text[n] >= 'A' && text[n] <= 'Z') text[n] = static_cast<char>(text[n] - 'A' + 'a');
  }
  return n;
}

void* Mymemset(void* destination, int value, unsigned count) {
  unsigned char* p = static_cast<unsigned char*>(destination);
  unsigned char* const end = p + count;
  const unsigned char byte = static_cast<unsigned char>(value);
  // Bytes up to the first word boundary, whole words through the middle, bytes for the tail.
  while (p < end && (reinterpret_cast<uintptr_t>(p) % sizeof(uint32_t)) != 0) *p++ = byte;
  const uint32_t word = byte * 0x01010101u;
  while (static_cast<unsigned>(end - p) >= sizeof(uint32_t)) {
    memcpy(p, &word, sizeof word);
    p += sizeof word;
  }
  while (p < end) *p++ = byte;
  return end;
}
