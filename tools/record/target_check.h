// Whether a command can have the agent preloaded into it.
#pragma once

#include <string>

namespace talvex {

// Preloadable: the agent enters it. Traced: no preloaded library can (a statically linked
// program, or a 64-bit Go program, which makes its system calls itself), so the kernel tracer
// records it.
enum class TargetKind { Preloadable, Traced, Wrong, NotFound };

// Finds `command` on PATH (when it names no directory) and looks at what it would run: a
// dynamically linked x86 program of either ABI, or a script whose interpreter is one. `path` gets the program found; `why` says
// plainly what is wrong when it cannot be recorded.
TargetKind checkTarget(const std::string& command, std::string* path, std::string* why);

// Whether the program at `path` needs AddressSanitizer's runtime as a library of its own (gcc's
// default), which insists on coming first in the preload list unless told not to.
bool linksAddressSanitizerRuntime(const std::string& path);

}  // namespace talvex
