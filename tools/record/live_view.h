// Each event on standard error as it happens: when, which process and socket, what.
#pragma once

#include "recording_output.h"

namespace talvex {

class LiveView : public RecordingOutput {
 public:
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  bool finish() override { return true; }
};

}  // namespace talvex
