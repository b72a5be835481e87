// The TCP connections the command made and accepted, as a capture file for Wireshark or tshark:
// a handshake when one opens (for a connect in progress, once it is known to have connected), a
// segment for each payload, a close when it ends; a connect that failed is a SYN, with a reset
// when it was refused.
#pragma once

#include <stdint.h>

#include <set>
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
  std::set<uint64_t> drawn_;  // connections whose stream is open in the file
  bool failed_ = false;
};

}  // namespace talvex
