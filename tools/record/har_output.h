// --har FILE: the run's HTTP exchanges as a HAR 1.2 document (har_document.h), written when the
// run ends.
#pragma once

#include <string>

#include "document_file.h"
#include "har_document.h"
#include "recording_document.h"

namespace talvex {

class HarOutput : public RecordingDocument {
 public:
  // `keyLog`: the run decrypts with a key log, which the end line then speaks of.
  explicit HarOutput(bool keyLog) : keyLog_(keyLog) {}
  bool open(const std::string& path, std::string* error) { return file_.create(path, error); }
  bool write(const Recording& recording) override;
  std::string endLine() const override { return harSummaryLine(summary_, keyLog_); }

 private:
  const bool keyLog_;
  DocumentFile file_;
  HarSummary summary_;
};

}  // namespace talvex
