// An output written once, when the run ends, from the whole recording: the transcript, the HAR
// and the HTML report. They group or pair what arrived in pieces (a conversation, a request and
// its response), so they need everything; the messages are kept once for them all (KeptMessages)
// and the recording is built once.
#pragma once

#include <string>

#include "conversations.h"

namespace talvex {

class RecordingDocument {
 public:
  virtual ~RecordingDocument() = default;
  // False when it could not be written in full.
  virtual bool write(const Recording& recording) = 0;
  // A line for the end of the run (what the document holds and what it left out); empty for none.
  virtual std::string endLine() const { return ""; }
};

}  // namespace talvex
