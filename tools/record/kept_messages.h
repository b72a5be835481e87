// The messages shown, kept as they were parsed on arrival, for the documents written at the end
// of the run (RecordingDocument): the recording is built from them once, whatever number of
// documents there are.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include "conversations.h"
#include "recording_output.h"

namespace talvex {

class KeptMessages : public RecordingOutput {
 public:
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  bool finish() override { return true; }

  // The recording of what was kept (which is handed over), with the conversations whose TLS the
  // agent could not read decrypted where `keylog` (a path; empty for none) holds their secrets.
  Recording build(const std::string& keylog);

 private:
  std::vector<ParsedMessage> shown_;
  size_t malformed_ = 0;
};

}  // namespace talvex
