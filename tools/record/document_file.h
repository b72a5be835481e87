// A file that a document is written into when the run ends, created when the run begins: a path
// that cannot be written stops the run before the command starts, not after it has run.
#pragma once

#include <stdio.h>

#include <string>

namespace talvex {

class DocumentFile {
 public:
  DocumentFile() = default;
  ~DocumentFile();
  DocumentFile(const DocumentFile&) = delete;
  DocumentFile& operator=(const DocumentFile&) = delete;

  // False with `error` naming the path and why.
  bool create(const std::string& path, std::string* error);
  // Writes the whole text and closes the file; false when any of it could not be written.
  bool writeAndClose(const std::string& text);

 private:
  FILE* file_ = nullptr;
};

}  // namespace talvex
