// --html FILE: the recording as a self-contained HTML page (html_report.h), written when the run
// ends.
#pragma once

#include <string>

#include "document_file.h"
#include "recording_document.h"

namespace talvex {

class HtmlReportOutput : public RecordingDocument {
 public:
  bool open(const std::string& path, std::string* error) { return file_.create(path, error); }
  bool write(const Recording& recording) override;

 private:
  DocumentFile file_;
};

}  // namespace talvex
