// The TCP connections the command made, as a capture file for Wireshark or tshark: a handshake
// when one opens, a segment for each payload, a close when it ends.
#pragma once

#include <string>

#include "capture_writer.h"
#include "recording_output.h"

namespace talvex {

class CaptureOutput : public RecordingOutput {
 public:
  // Creates the file. False with `error` filled in when it cannot.
  bool open(const std::string& path, std::string* error);
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  bool failedWhileWriting() const override { return failed_; }
  bool finish() override { return !failed_; }

 private:
  CaptureFile capture_;
  bool failed_ = false;
};

}  // namespace talvex
