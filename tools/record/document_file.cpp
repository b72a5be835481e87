#include "document_file.h"

#include <errno.h>
#include <string.h>

namespace talvex {

DocumentFile::~DocumentFile() {
  if (file_ != nullptr) fclose(file_);
}

bool DocumentFile::create(const std::string& path, std::string* error) {
  file_ = fopen(path.c_str(), "wb");
  if (file_ == nullptr) *error = "cannot write " + path + ": " + strerror(errno);
  return file_ != nullptr;
}

bool DocumentFile::writeAndClose(const std::string& text) {
  if (file_ == nullptr) return false;
  const bool written = fwrite(text.data(), 1, text.size(), file_) == text.size();
  const bool closed = fclose(file_) == 0;
  file_ = nullptr;
  return written && closed;
}

}  // namespace talvex
