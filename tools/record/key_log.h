// --keylog FILE: the agent appends the TLS session secrets of the command's connections to FILE.
#pragma once

#include <string>

namespace talvex {

// Makes `path` absolute (the command's processes may change directory) and creates the file, or
// keeps what it holds: a key log is appended to, as SSLKEYLOGFILE is. False, with `error` saying
// why, when it cannot be written.
bool prepareKeylog(std::string* path, std::string* error);

}  // namespace talvex
