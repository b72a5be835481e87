// Each event on standard error as it happens: when, which process and socket, what; and at the
// end the summary line the transcript has, counted as the messages arrived.
#pragma once

#include <string>

#include "recording_output.h"
#include "recording_totals.h"

namespace talvex {

class LiveView : public RecordingOutput {
 public:
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  bool finish() override;

 private:
  RecordingTotals totals_;
  std::string lastResolution_;  // the entry last shown, by process, ticket and address
};

}  // namespace talvex
